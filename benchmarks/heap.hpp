#pragma once

#include <malloc.h>

#include <cstddef>

namespace bench {

/// Bytes of heap that this process uses.
inline std::size_t heapInUse() {
#if __GLIBC_PREREQ(2, 33)
    auto const info = ::mallinfo2();
#else
    auto const info = ::mallinfo();
#endif
    return static_cast<std::size_t>(info.uordblks) + static_cast<std::size_t>(info.hblkhd);
}

} // namespace bench
