#include "tally.hpp"

#include "cpu_clock.hpp"

#include <pthread.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace bench {

void Tally::add() {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (!clockKnown_) {
        clockKnown_ = ::pthread_getcpuclockid(::pthread_self(), &clock_) == 0;
    }
    ++count_;
    if (count_ == awaited_) {
        reached_.notify_all();
    }
}

void Tally::waitFor(std::uint64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    awaited_ = count;
    auto const reached = [this, count] { return count_ >= count; };
    if (!reached_.wait_for(lock, std::chrono::minutes(1), reached)) {
        throw std::runtime_error("only " + std::to_string(count_) + " of " + std::to_string(count)
                                 + " messages or acknowledgements came");
    }
}

void Tally::reset() {
    std::lock_guard<std::mutex> const lock(mutex_);
    count_ = 0;
    awaited_ = 0;
}

double Tally::countingThreadCpuTime() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (!clockKnown_) {
        throw std::logic_error("nothing was counted yet");
    }
    return cpuSeconds(clock_);
}

} // namespace bench
