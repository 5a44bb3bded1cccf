#pragma once

#include <chrono>
#include <cstdint>
#include <limits>

namespace mqtt {

/// The monotonic clock in seconds, truncated to milliseconds.
inline double monotonicSeconds() {
    auto const now = std::chrono::steady_clock::now().time_since_epoch();
    auto const count = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    return static_cast<double>(count) / 1000.0;
}

/// Whole seconds, limited to the range of 32 bits.
inline std::uint32_t wholeSeconds(double seconds) {
    constexpr auto largest = std::numeric_limits<std::uint32_t>::max();
    // Also for what is not a number.
    if (!(seconds > 0.0)) {
        return 0;
    }
    return seconds < largest ? static_cast<std::uint32_t>(seconds) : largest;
}

} // namespace mqtt
