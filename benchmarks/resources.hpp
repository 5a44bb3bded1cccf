#pragma once

#include <malloc.h>

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <system_error>

namespace bench {

/// The processor time that a process or thread has used so far, in seconds.
inline double cpuSeconds(clockid_t clock) {
    timespec now{};
    if (::clock_gettime(clock, &now) != 0) {
        throw std::system_error(errno, std::generic_category(), "clock_gettime");
    }
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Takes the result of every action that is timed, so that the compiler cannot leave it out.
inline std::size_t volatile resultOfTimedAction = 0;

/// Calls an action for so many seconds.
/// @return the processor time of one call in nanoseconds. No action waits, and processor time does
///         not count what other processes do.
template <class Action>
double nanosecondsPerCall(Action&& action, double seconds) {
    constexpr unsigned CALLS_PER_CLOCK_READ = 64;
    double passed = 0;
    double calls = 0;
    double const start = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    while (passed < seconds) {
        for (unsigned i = 0; i < CALLS_PER_CLOCK_READ; ++i) {
            resultOfTimedAction = action();
        }
        calls += CALLS_PER_CLOCK_READ;
        passed = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - start;
    }
    return passed / calls * 1e9;
}

/// Bytes of heap that this process uses.
inline std::size_t heapInUse() {
    auto const info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

} // namespace bench
