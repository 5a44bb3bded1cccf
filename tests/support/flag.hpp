#pragma once

#include "support/watched.hpp"

namespace support {

// What is done once, and waited for.

inline bool isSet(bool value) {
    return value;
}

inline void set(Watched<bool>& flag) {
    flag.change([](bool& value) { value = true; });
}

} // namespace support
