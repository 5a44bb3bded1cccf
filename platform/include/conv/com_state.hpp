#pragma once

#include <cstdint>

namespace conv {

/// State of a communication. Values without a name here are legal and travel unchanged.
enum class ComState : std::uint8_t {
    UNKNOWN = 0,
    DISCONNECTED = 1,    ///< idle; nothing is tried
    CONNECTED = 2,       ///< usable
    CONNECTION_LOST = 3, ///< was connected, is being retried
    CONNECTING = 4       ///< on the way to the first connection
};

} // namespace conv
