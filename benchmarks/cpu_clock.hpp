#pragma once

#include <cerrno>
#include <ctime>
#include <system_error>

namespace bench {

/// What a clock shows, in seconds; made for the clocks of processes and threads.
inline double cpuSeconds(clockid_t clock) {
    timespec now{};
    if (::clock_gettime(clock, &now) != 0) {
        throw std::system_error(errno, std::generic_category(), "clock_gettime");
    }
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

} // namespace bench
