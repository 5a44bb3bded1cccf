#pragma once

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>

namespace bench {

/// Counts messages on a client's thread, and lets another thread wait for a count.
///
/// The waiting thread is woken only when the count is reached: a wake-up for every message would
/// be measured along with the clients.
class MessageCounter {
public:
    void add();
    /// @throws std::runtime_error when the count is not reached within a minute
    void waitFor(std::uint64_t count);
    void reset();

    /// The processor time in seconds that the counting thread has used so far. Call it after the
    /// first `add`.
    double cpuSecondsOfCountingThread() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable reached_;
    std::uint64_t count_ = 0;
    std::uint64_t expected_ = 0;
    bool clockIsKnown_ = false;
    clockid_t clock_{};
};

} // namespace bench
