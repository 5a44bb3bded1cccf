#pragma once

#include <cstdint>

namespace conv {

struct UnixTime {
    double seconds = 0;
    std::uint8_t valid = 0;
};

} // namespace conv
