#pragma once

#include <cstdint>

namespace zym::common {

/// What both sides of a binding share.
struct Binder {
    /// Outcome of binding or unbinding. Other values are legal: servers have codes of their own.
    enum class Error : std::uint8_t {
        SUCCESS = 0,
        FAILED = 1,           ///< the request could not be sent, or was answered with nonsense
        BUSY = 2,             ///< another binding or unbinding is under way
        TIMEOUT = 3,          ///< no answer in time
        NO_SERVER = 4,        ///< the server is there but nobody serves bindings
        ALREADY_BOUND = 5,    ///< is bound; from a server this counts as success
        NOT_BOUND = 6,        ///< there is nothing to unbind from
        REFUSED = 7,          ///< the server does not want this client
        NOT_SYNCHRONIZED = 8, ///< bound, but the server's time base could not be read
        CANCELLED = 9         ///< called off, or terminated
    };
};

} // namespace zym::common
