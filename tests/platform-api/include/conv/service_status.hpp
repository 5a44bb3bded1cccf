#pragma once

#include <cstdint>

namespace conv {

struct ServiceStatus {
    std::uint8_t operating = 0;
    std::uint8_t health = 0;
};

} // namespace conv
