#pragma once

#include <cstdint>

namespace conv {

/// How a service is doing. The codes are the service's own and travel unchanged.
struct ServiceStatus {
    std::uint8_t operating = 0;
    std::uint8_t health = 0;
};

} // namespace conv
