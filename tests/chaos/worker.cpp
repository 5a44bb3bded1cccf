#include "chaos/worker.hpp"

namespace chaos {

Worker::Worker(TestBed& on, std::string name, int maxPauseMs)
    : testBed(on), name_(std::move(name)), maxPauseMs_(maxPauseMs), random(on.seed, name_) {}

void Worker::set(State state) {
    std::lock_guard<std::mutex> const lock(mutex_);
    state_ = state;
    // Not in the constructor: the derived class is not constructed there.
    if (!thread_.joinable()) {
        thread_ = std::thread([this] { run(); });
    }
    changed_.notify_all();
}

void Worker::waitUntilPaused() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !inStep_; });
}

void Worker::end() {
    set(State::ENDED);
    thread_.join();
}

void Worker::verify() {
    check(support::eventually([this] { return step(); }, END_DEADLINE), "no longer works");
}

void Worker::wait(int fromMs, int toMs) {
    std::chrono::milliseconds const time(random.between(fromMs, toMs));
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, time, [&] { return state_ != State::WORKING; });
}

void Worker::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return state_ != State::PAUSED; });
        if (state_ == State::ENDED) {
            return;
        }
        inStep_ = true;
        lock.unlock();
        step();
        wait(0, maxPauseMs_);
        lock.lock();
        inStep_ = false;
        changed_.notify_all();
    }
}

} // namespace chaos
