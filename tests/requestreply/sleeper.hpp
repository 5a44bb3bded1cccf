#pragma once

#include "support/eventually.hpp"

#include <unistd.h>

#include <sys/syscall.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

/// A thread that calls something which blocks.
class Sleeper {
public:
    explicit Sleeper(std::function<void()> call)
        : thread_([this, call = std::move(call)] {
              number_ = static_cast<long>(syscall(SYS_gettid));
              call();
              ended_ = true;
          }) {}
    ~Sleeper() { join(); }
    Sleeper(Sleeper const&) = delete;
    Sleeper& operator=(Sleeper const&) = delete;

    /// Waits until the call blocks.
    /// @return false when it returns instead
    bool fallsAsleep() const {
        // More than once: it may have dozed for another reason.
        int seen = 0;
        return support::eventually([&] {
                   seen = number_ != 0 && state() == 'S' ? seen + 1 : 0;
                   return seen == 3 || ended_;
               })
               && !ended_;
    }

    /// Waits until the call blocks or has returned.
    bool comesToRest() const {
        return support::eventually([&] { return ended_ || (number_ != 0 && state() == 'S'); });
    }

    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    char state() const {
        std::ifstream file("/proc/self/task/" + std::to_string(number_) + "/stat");
        std::string text;
        std::getline(file, text);
        auto const name = text.rfind(") ");
        return name == std::string::npos ? '?' : text[name + 2];
    }

    std::atomic<long> number_{0};
    std::atomic<bool> ended_{false};
    std::thread thread_;
};
