#pragma once

#include <zym/common/export.hpp>

#include <cstdint>

namespace conv {

/// The condition of a service. Each service defines its codes, which are transmitted unchanged.
struct ZYM_COMMON_EXPORT ServiceStatus {
    std::uint8_t operating = 0;
    std::uint8_t health = 0;
};

} // namespace conv
