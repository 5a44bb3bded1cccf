#pragma once

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>

namespace bench {

/// Counts what a worker thread sees, and lets another thread wait for a count.
///
/// Whoever waits is woken once, when the awaited count is reached: a wake-up for every
/// message would be measured along with the clients.
class Tally {
public:
    void add();
    /// @throws std::runtime_error when the count is not reached within a minute
    void waitFor(std::uint64_t count);
    void reset();

    /// The processor time used so far by the thread that counts, in seconds; there must have
    /// been a count.
    double countingThreadCpuTime() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable reached_;
    std::uint64_t count_ = 0;
    std::uint64_t awaited_ = 0;
    bool clockKnown_ = false;
    clockid_t clock_{};
};

} // namespace bench
