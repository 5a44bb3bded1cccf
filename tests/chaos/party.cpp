#include "chaos/party.hpp"

namespace chaos {

Party::Party(std::string name, std::uint64_t seed)
    : name_(std::move(name)), dice_(seed, name_), thread_() {}

Party::~Party() {
    end();
}

void Party::work() {
    std::lock_guard<std::mutex> const lock(mutex_);
    working_ = true;
    // Not in the constructor: a derived class is whole only now.
    if (!thread_.joinable()) {
        thread_ = std::thread([this] { run(); });
    }
    changed_.notify_all();
}

void Party::rest() {
    std::lock_guard<std::mutex> const lock(mutex_);
    working_ = false;
    changed_.notify_all();
}

void Party::waitForRest() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !inStep_; });
}

void Party::end() {
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

void Party::pause(int fromMilliseconds, int toMilliseconds) {
    std::chrono::milliseconds const time(dice_.between(fromMilliseconds, toMilliseconds));
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, time, [&] { return !working_; });
}

bool Party::working() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return working_;
}

void Party::run() {
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
