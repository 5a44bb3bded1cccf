#pragma once

#include <cstdint>

namespace conv {

/// A moment in seconds since 1970-01-01 00:00:00 UTC, with fractions, or "not known".
///
/// In JSON a bare number, or `null` while it is not valid.
struct UnixTime {
    /// The invalid time.
    constexpr UnixTime() noexcept = default;
    /// A valid time.
    constexpr explicit UnixTime(double secondsSince1970) noexcept
        : seconds(secondsSince1970), valid(1) {}

    double seconds = 4294967295.0; ///< without meaning unless `valid`
    std::uint8_t valid = 0;        ///< 0: not known; anything else: known
};

} // namespace conv
