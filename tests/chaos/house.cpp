#include "chaos/house.hpp"

#include "support/timeout_factor.hpp"

#include <features.h>
#include <malloc.h>

#include <filesystem>
#include <iterator>
#include <ostream>

namespace chaos {

namespace {

std::size_t entries(char const* directory) {
    std::filesystem::directory_iterator const all(directory);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// The sanitizers' allocators do not tell, nor does glibc before 2.33 where there is much.
std::size_t heapInUse() {
#if __GLIBC_PREREQ(2, 33) && !defined(ZYM_TEST_SANITIZED)
    auto const info = mallinfo2();
    return info.uordblks + info.hblkhd;
#else
    return 0;
#endif
}

} // namespace

Holdings Holdings::now() {
    auto const heap = heapInUse();
    return {entries("/proc/self/task"), entries("/proc/self/fd"), heap};
}

std::ostream& operator<<(std::ostream& out, Holdings const& holdings) {
    return out << holdings.threads << " threads, " << holdings.descriptors << " descriptors, "
               << holdings.heap / 1024 << " KiB of heap";
}

} // namespace chaos
