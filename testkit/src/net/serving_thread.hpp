#pragma once

#include "net/file_descriptor.hpp"

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace mqtt::test {

/// A thread that waits until one of the sockets from `sockets` is ready, calls `serve`, and begins
/// again. It calls both with the mutex held.
class ServingThread {
public:
    ServingThread(std::mutex& mutex, std::function<std::vector<pollfd>()> sockets,
                  std::function<void()> serve)
        : mutex_(mutex), sockets_(std::move(sockets)), serve_(std::move(serve)) {}
    ~ServingThread() {
        stop_ = true;
        wake();
        thread_.join();
    }
    ServingThread(ServingThread const&) = delete;
    ServingThread& operator=(ServingThread const&) = delete;

    /// Ends the wait: the sockets have changed.
    void wake() { eventfd_write(wakeUp_.get(), 1); }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            std::vector<pollfd> sockets = sockets_();
            sockets.push_back({wakeUp_.get(), POLLIN, 0});
            lock.unlock();
            ::poll(sockets.data(), sockets.size(), -1);
            eventfd_t count = 0;
            eventfd_read(wakeUp_.get(), &count);
            lock.lock();
            serve_();
        }
    }

    std::mutex& mutex_;
    std::function<std::vector<pollfd>()> const sockets_;
    std::function<void()> const serve_;
    FileDescriptor wakeUp_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::atomic<bool> stop_{false};
    std::thread thread_{[this] { run(); }};
};

} // namespace mqtt::test
