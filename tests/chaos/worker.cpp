#include "chaos/worker.hpp"

namespace chaos {

Worker::Worker(TestBed& on, std::string name)
    : testBed(on), name_(std::move(name)), random(on.seed, name_) {}

void Worker::start() {
    std::lock_guard<std::mutex> const lock(mutex_);
    working_ = true;
    // Not in the constructor: the derived class is not constructed there.
    if (!thread_.joinable()) {
        thread_ = std::thread([this] { run(); });
    }
    changed_.notify_all();
}

void Worker::pause() {
    std::lock_guard<std::mutex> const lock(mutex_);
    working_ = false;
    changed_.notify_all();
}

void Worker::waitUntilPaused() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !inStep_; });
}

void Worker::end() {
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        working_ = false;
        ended_ = true;
        changed_.notify_all();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Worker::wait(int fromMilliseconds, int toMilliseconds) {
    std::chrono::milliseconds const time(random.between(fromMilliseconds, toMilliseconds));
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, time, [&] { return !working_; });
}

void Worker::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return working_ || ended_; });
        if (ended_) {
            return;
        }
        inStep_ = true;
        lock.unlock();
        step();
        lock.lock();
        inStep_ = false;
        changed_.notify_all();
    }
}

} // namespace chaos
