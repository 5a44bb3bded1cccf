#include "requestreply/adjustable_clock.hpp"

#include <pthread.h>

#include <atomic>
#include <ctime>

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

std::atomic<steady_clock::duration> ahead{steady_clock::duration::zero()};

} // namespace

// The linker replaces the clock, and the wait on a condition, by the functions with `__wrap_`.

steady_clock::time_point realNow() __asm__("__real_" ZYM_TEST_STEADY_NOW);
steady_clock::time_point adjustedNow() __asm__("__wrap_" ZYM_TEST_STEADY_NOW);
int realWait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
             timespec const*) __asm__("__real_pthread_cond_clockwait");
// Visible, because the run-time library of ThreadSanitizer refers to it.
__attribute__((visibility("default"))) int
adjustedWait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
             timespec const*) __asm__("__wrap_pthread_cond_clockwait");

steady_clock::time_point adjustedNow() {
    return realNow() + ahead.load();
}

int adjustedWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                 timespec const* until) {
    if (clock != CLOCK_MONOTONIC) {
        return realWait(condition, mutex, clock, until);
    }
    auto const real = seconds(until->tv_sec) + nanoseconds(until->tv_nsec) - ahead.load();
    auto const whole = std::chrono::floor<seconds>(real);
    timespec const moment{static_cast<time_t>(whole.count()),
                          static_cast<long>(nanoseconds(real - whole).count())};
    return realWait(condition, mutex, clock, &moment);
}

void adjustable_clock::advance(std::chrono::milliseconds by) {
    ahead = ahead.load() + by;
}
