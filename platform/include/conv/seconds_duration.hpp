#pragma once

#include <zym/common/export.hpp>

#include <chrono>
#include <cstdint>
#include <type_traits>

namespace conv {

/// A count of seconds, 0 to 4294967295. All ones (`NO_TIMEOUT`) means "without limit".
///
/// A literal type; its operations never throw and may be called from any thread.
class ZYM_COMMON_EXPORT SecondsDuration {
public:
    /// No limit in time: the count with all bits set.
    static SecondsDuration const NO_TIMEOUT;

    /// No time at all: 0 seconds.
    constexpr SecondsDuration() noexcept = default;
    /// Implicit, so that a plain number of seconds can be passed as a duration.
    constexpr SecondsDuration(std::uint32_t seconds) noexcept : seconds_(seconds) {}

    /// Not from 0.5, which would be 0.
    template <class Fraction, class = std::enable_if_t<std::is_floating_point_v<Fraction>>>
    SecondsDuration(Fraction) = delete;

    /// The bit pattern read as a signed number: -1 for `NO_TIMEOUT`, negative from 2^31 on.
    constexpr std::int32_t toInt32() const noexcept {
        return seconds_ > MAX_INT32
                   ? static_cast<std::int32_t>(seconds_ - MAX_INT32 - 1) + MIN_INT32
                   : static_cast<std::int32_t>(seconds_);
    }

    /// `now` plus this duration; the largest time point for `NO_TIMEOUT` and when the sum exceeds
    /// it.
    ///
    /// Beware when waiting for it: standard libraries pass deadlines to the system as a `time_t`.
    /// Where that has 32 bits, a far time point overflows. Wait in several short waits.
    constexpr std::chrono::steady_clock::time_point
    toTimepoint(std::chrono::steady_clock::time_point now) const noexcept {
        auto const end = std::chrono::steady_clock::time_point::max();
        auto const span = std::chrono::seconds(seconds_);
        return seconds_ == UINT32_MAX || now > end - span ? end : now + span;
    }

private:
    static constexpr std::uint32_t MAX_INT32 = INT32_MAX;
    static constexpr std::int32_t MIN_INT32 = INT32_MIN;

    std::uint32_t seconds_ = 0;
};

inline constexpr SecondsDuration SecondsDuration::NO_TIMEOUT{UINT32_MAX};

} // namespace conv
