#pragma once

#include <chrono>

namespace mqtt {

/// So much later, or earlier; at most the far end of time, at least the beginning of the clock.
inline std::chrono::steady_clock::time_point later(std::chrono::steady_clock::time_point moment,
                                                   std::chrono::milliseconds duration) {
    using std::chrono::floor;
    using std::chrono::milliseconds;
    constexpr auto end = std::chrono::steady_clock::time_point::max();
    if (duration >= floor<milliseconds>(end - moment)) {
        return end;
    }
    if (duration <= -floor<milliseconds>(moment.time_since_epoch())) {
        return {};
    }
    return moment + duration;
}

/// Waits on a condition for a notification, until the deadline or for an hour: where `time_t` has
/// 32 bits, a far deadline overflows inside the standard library and the wait would return at
/// once, for ever.
template <class Condition, class Lock>
void waitSlice(Condition& condition, Lock& lock, std::chrono::steady_clock::time_point deadline) {
    constexpr std::chrono::hours slice{1};
    auto const now = std::chrono::steady_clock::now();
    // The far end of time minus now still fits; now plus an hour always does.
    condition.wait_until(lock, deadline - now > slice ? now + slice : deadline);
}

/// Waits on a condition until `done()` or the deadline; returns what `done()` says last.
template <class Condition, class Lock, class Predicate>
bool waitUntil(Condition& condition, Lock& lock, std::chrono::steady_clock::time_point deadline,
               Predicate done) {
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        waitSlice(condition, lock, deadline);
    }
    return true;
}

} // namespace mqtt
