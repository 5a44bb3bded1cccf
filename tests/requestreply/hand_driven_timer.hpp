#pragma once

#include <chrono>
#include <functional>

/// The program that links this has no timer but ours: it expires when the test says so, on the
/// test's thread. There is one at a time, that of the client under test.
namespace hand_driven_timer {

/// What the client has done with its timer.
struct Record {
    int restarts = 0;
    int stops = 0;
    int terminations = 0;
    bool armed = false;
    bool once = false;
    std::chrono::milliseconds period{0}; ///< as of the last restart
};

Record record();
/// Forgets what was done so far.
void reset();
/// Calls the callback, whether armed or not: an expiry that was decided on a while ago.
void expire();
/// Called within every `stop`, on the thread that stops.
void onStop(std::function<void()> hook);

} // namespace hand_driven_timer
