#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

/// A program that links `manual-timer` has timers that expire only when the test says so, on the
/// test's thread.
///
/// A timer is named by its place among those that exist, in the order in which they were made.
namespace manual_timer {

/// What was done with a timer.
struct Record {
    int restarts = 0;
    int terminations = 0;
    bool armed = false;
    bool once = false;
    std::chrono::milliseconds period{0}; ///< as of the last restart
};

Record record(std::size_t timer = 0);
/// Clears the records of all timers, and the hooks.
void reset();
/// Calls the callback, whether armed or not: an expiry may have been decided on before a stop.
void expire(std::size_t timer = 0);
/// Called within every `restart` of every timer, before it is armed. What it throws comes out.
void onRestart(std::function<void()> hook);
/// Called within every `stop` of every timer, on the thread that stops.
void onStop(std::function<void()> hook);

} // namespace manual_timer
