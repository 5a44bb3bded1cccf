#pragma once

#include <cstdint>

namespace zym::common {

struct Binder {
    enum class Error : std::uint8_t {
        SUCCESS = 0,
        FAILED = 1,
        BUSY = 2,
        TIMEOUT = 3,
        NO_SERVER = 4,
        ALREADY_BOUND = 5,
        NOT_BOUND = 6,
        REFUSED = 7,
        NOT_SYNCHRONIZED = 8,
        CANCELLED = 9
    };
};

} // namespace zym::common
