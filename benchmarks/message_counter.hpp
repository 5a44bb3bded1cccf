#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>

namespace bench {

/// Counts messages on a client's thread, and lets another thread wait for a count.
///
/// The waiting thread is woken only when the count is reached: a wake-up for every message would
/// be measured along with the clients.
class MessageCounter {
public:
    void add() {
        std::lock_guard<std::mutex> const lock(mutex_);
        ++count_;
        if (count_ == expected_) {
            reached_.notify_all();
        }
    }

    /// @throws std::runtime_error when the count is not reached within a minute
    void waitFor(std::uint64_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        expected_ = count;
        auto const reached = [this, count] { return count_ >= count; };
        if (!reached_.wait_for(lock, std::chrono::minutes(1), reached)) {
            throw std::runtime_error("only " + std::to_string(count_) + " of "
                                     + std::to_string(count) + " messages came");
        }
    }

    void reset() {
        std::lock_guard<std::mutex> const lock(mutex_);
        count_ = 0;
        expected_ = 0;
    }

private:
    std::mutex mutex_;
    std::condition_variable reached_;
    std::uint64_t count_ = 0;
    std::uint64_t expected_ = 0;
};

} // namespace bench
