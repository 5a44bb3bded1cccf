#pragma once

#include <cstdint>

namespace conv {

/// State of a communication. Values without a name here are legal and transmitted unchanged.
enum class ComState : std::uint8_t {
    UNKNOWN = 0,
    DISCONNECTED = 1,    ///< idle: no attempt is made
    CONNECTED = 2,       ///< usable
    CONNECTION_LOST = 3, ///< was connected, is trying to reconnect
    CONNECTING = 4       ///< trying to connect for the first time
};

} // namespace conv
