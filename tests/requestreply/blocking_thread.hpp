#pragma once

#include "mqtt/test/eventually.hpp"

#include <unistd.h>

#include <sys/syscall.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

/// A thread that makes one call, which blocks.
class BlockingThread {
public:
    explicit BlockingThread(std::function<void()> call)
        : thread_([this, call = std::move(call)] {
              number_ = static_cast<long>(syscall(SYS_gettid));
              call();
              ended_ = true;
          }) {}
    ~BlockingThread() { join(); }
    BlockingThread(BlockingThread const&) = delete;
    BlockingThread& operator=(BlockingThread const&) = delete;

    /// Waits until the call blocks.
    /// @return false when it returns instead
    bool isBlocked() const {
        // Seen several times: a thread may also sleep for a moment on a mutex.
        int seen = 0;
        return mqtt::test::eventually([&] {
                   seen = number_ != 0 && state() == 'S' ? seen + 1 : 0;
                   return seen == 3 || ended_;
               })
               && !ended_;
    }

    /// Waits until the call blocks or has returned.
    bool isBlockedOrReturns() const {
        return mqtt::test::eventually([&] { return ended_ || (number_ != 0 && state() == 'S'); });
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
