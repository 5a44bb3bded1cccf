#pragma once

#include "mqtt/mutex.hpp"

#include <conv/seconds_duration.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace mqtt {

/// All ones: no limit.
inline conv::SecondsDuration const NO_TIMEOUT{UINT32_MAX};

/// The moment that is so much later, or earlier; at most the last moment of the clock, at least its
/// first.
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

/// Now plus a time, which may be negative; at most the last moment of the clock.
inline std::chrono::steady_clock::time_point deadlineAfter(std::chrono::seconds timeout) {
    using std::chrono::seconds;
    constexpr auto end = std::chrono::steady_clock::time_point::max();
    auto const now = std::chrono::steady_clock::now();
    return timeout >= std::chrono::floor<seconds>(end - now) ? end
                                                             : now + std::max(timeout, seconds(0));
}

/// Waits on a condition until `done()` or the deadline; returns what `done()` says last.
/// @param done called with the lock held
/// @param longestSleep after which `done()` is called again. A limit is needed: with a `time_t` of
///        32 bits a far deadline overflows inside the standard library, and a wait for it returns
///        at once.
template <class Condition, class Lock, class Predicate>
bool waitUntil(Condition& condition, Lock& lock, std::chrono::steady_clock::time_point deadline,
               Predicate done, std::chrono::seconds longestSleep = std::chrono::hours(1))
    ZYM_MQTT_ANALYSIS(no_thread_safety_analysis) {
    while (!done()) {
        auto const now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            return false;
        }
        condition.wait_until(lock, deadline - now > longestSleep ? now + longestSleep : deadline);
    }
    return true;
}

} // namespace mqtt
