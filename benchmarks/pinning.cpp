#include "pinning.hpp"

#include <sched.h>

#include <cerrno>
#include <cstddef>
#include <system_error>

namespace bench {
namespace {

int lastAllowedCpu() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        throw std::system_error(errno, std::generic_category(), "sched_getaffinity");
    }
    int last = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<std::size_t>(cpu), &allowed)) {
            last = cpu;
        }
    }
    return last;
}

} // namespace

int pin(int wanted) {
    int const cpu = wanted < 0 ? lastAllowedCpu() : wanted;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(cpu), &one);
    if (::sched_setaffinity(0, sizeof one, &one) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot use this CPU");
    }
    return cpu;
}

} // namespace bench
