#pragma once

#include <cstdint>

namespace zym::common {

/// The types that both sides of a binding use.
struct Binder {
    /// Outcome of binding or unbinding. Other values are legal: servers have codes of their own.
    enum class Error : std::uint8_t {
        SUCCESS = 0,
        FAILED = 1,           ///< the request could not be sent, or the answer is malformed
        BUSY = 2,             ///< another binding or unbinding is under way
        TIMEOUT = 3,          ///< no answer in time
        NO_SERVER = 4,        ///< the server answers, but serves no bindings
        ALREADY_BOUND = 5,    ///< bound before; from a server this counts as success
        NOT_BOUND = 6,        ///< there is no binding to end
        REFUSED = 7,          ///< the server rejects this client
        NOT_SYNCHRONIZED = 8, ///< bound, but the server's time base could not be read
        CANCELLED = 9         ///< cancelled or terminated
    };
};

} // namespace zym::common
