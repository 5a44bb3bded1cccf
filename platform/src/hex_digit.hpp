#pragma once

#include <optional>

namespace zym::common {

/// The value of a hexadecimal digit. Compares ranges: the functions of <cctype> depend on the
/// locale.
constexpr std::optional<unsigned> hexDigit(char c) noexcept {
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0');
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<unsigned>(c - 'a') + 10U;
    }
    if (c >= 'A' && c <= 'F') {
        return static_cast<unsigned>(c - 'A') + 10U;
    }
    return std::nullopt;
}

} // namespace zym::common
