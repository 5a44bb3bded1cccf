#pragma once

#include <cstdint>

namespace conv {

enum class ComState : std::uint8_t {
    UNKNOWN = 0,
    DISCONNECTED = 1,
    CONNECTED = 2,
    CONNECTION_LOST = 3,
    CONNECTING = 4
};

} // namespace conv
