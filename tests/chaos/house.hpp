#pragma once

#include <cstddef>
#include <iosfwd>

namespace chaos {

/// What this process holds.
struct Holdings {
    std::size_t threads;
    std::size_t descriptors;
    std::size_t heap; ///< bytes in use, of all arenas; 0 where nobody can tell

    static Holdings now();
};

std::ostream& operator<<(std::ostream& out, Holdings const& holdings);

} // namespace chaos
