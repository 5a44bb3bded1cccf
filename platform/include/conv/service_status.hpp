#pragma once

#include <zym/common/export.hpp>

#include <cstdint>

namespace conv {

/// How a service is doing. The codes are the service's own and travel unchanged.
struct ZYM_COMMON_EXPORT ServiceStatus {
    std::uint8_t operating = 0;
    std::uint8_t health = 0;
};

} // namespace conv
