#include "message_counter.hpp"

#include "clocks.hpp"

#include <pthread.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace bench {

void MessageCounter::add() {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (!clockIsKnown_) {
        clockIsKnown_ = ::pthread_getcpuclockid(::pthread_self(), &clock_) == 0;
    }
    ++count_;
    if (count_ == expected_) {
        reached_.notify_all();
    }
}

void MessageCounter::waitFor(std::uint64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    expected_ = count;
    auto const reached = [this, count] { return count_ >= count; };
    if (!reached_.wait_for(lock, std::chrono::minutes(1), reached)) {
        throw std::runtime_error("only " + std::to_string(count_) + " of " + std::to_string(count)
                                 + " messages or acknowledgements came");
    }
}

void MessageCounter::reset() {
    std::lock_guard<std::mutex> const lock(mutex_);
    count_ = 0;
    expected_ = 0;
}

double MessageCounter::cpuSecondsOfCountingThread() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return cpuSeconds(clock_);
}

} // namespace bench
