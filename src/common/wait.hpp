#pragma once

#include <algorithm>
#include <chrono>

namespace mqtt {

/// Waits on a condition until `done()` or the deadline; returns what `done()` says last.
///
/// Waits in slices of an hour: where `time_t` has 32 bits, a far deadline overflows inside the
/// standard library and the wait would return at once, for ever.
template <class Condition, class Lock, class Predicate>
bool waitUntil(Condition& condition, Lock& lock, std::chrono::steady_clock::time_point deadline,
               Predicate done) {
    constexpr std::chrono::hours slice{1};
    while (!done()) {
        auto const now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return false;
        // The far end of time minus now still fits; now plus an hour always does.
        condition.wait_until(lock, deadline - now > slice ? now + slice : deadline);
    }
    return true;
}

} // namespace mqtt
