#pragma once

#include <chrono>

namespace mqtt {

/// The monotonic clock in seconds, cut to whole milliseconds.
inline double monotonicSeconds() {
    auto const now = std::chrono::steady_clock::now().time_since_epoch();
    auto const whole = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    return static_cast<double>(whole) / 1000.0;
}

} // namespace mqtt
