#pragma once

#include "cpu_clock.hpp"

#include <cstddef>
#include <ctime>

namespace bench {

/// What comes out of an action ends here, lest the compiler leave it out.
inline std::size_t volatile sink = 0;

/// @return nanoseconds of processor time of one call: nothing here waits, and what else the
///         machine does is left out
template <class Action>
double processorTimeOf(Action action, double seconds) {
    constexpr unsigned BATCH = 64; // the clock is read seldom
    double passed = 0;
    double count = 0;
    double const start = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    while (passed < seconds) {
        for (unsigned i = 0; i < BATCH; ++i) {
            sink = action();
        }
        count += BATCH;
        passed = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - start;
    }
    return passed / count * 1e9;
}

} // namespace bench
