#pragma once

#include <zym/common/export.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zym::common {

/// A 128-bit identifier: 16 bytes, in the order in which they are printed.
///
/// A literal type; may be copied and read from any thread.
class ZYM_COMMON_EXPORT Uuid {
public:
    /// All bits zero: no identity. Equal to `Uuid()` and to `Uuid(0)`.
    static Uuid const NIL;
    /// All bits one: an identity that is not known.
    static Uuid const UNKNOWN;

    /// The same as `NIL`.
    constexpr Uuid() noexcept = default;

    /// Puts the number, big-endian, in the last 8 bytes; the first 8 are zero.
    constexpr explicit Uuid(unsigned long long number) noexcept {
        for (std::size_t i = SIZE; i > SIZE / 2; --i) {
            bytes_[i - 1] = static_cast<std::uint8_t>(number & 0xffU);
            number >>= 8U;
        }
    }

    /// Reads the text that `to_string` (hexadecimal digits in either case) or `base64URL` returns.
    /// @throws std::invalid_argument for every other text, also for 22 base64url characters
    ///         whose four spare bits are not zero: `base64URL` would return another text
    explicit Uuid(std::string const& text);

    constexpr bool isNil() const noexcept {
        for (std::uint8_t const byte : bytes_) {
            if (byte != 0) {
                return false;
            }
        }
        return true;
    }

    /// 36 characters: lower-case hexadecimal digits in groups of 8, 4, 4, 4 and 12.
    std::string to_string() const;
    /// 22 characters of `A-Za-z0-9-_`, no padding: usable as a segment of a topic.
    std::string base64URL() const;

    friend constexpr bool operator==(Uuid const& left, Uuid const& right) noexcept {
        for (std::size_t i = 0; i < SIZE; ++i) {
            if (left.bytes_[i] != right.bytes_[i]) {
                return false;
            }
        }
        return true;
    }
    friend constexpr bool operator!=(Uuid const& left, Uuid const& right) noexcept {
        return !(left == right);
    }

private:
    static constexpr std::size_t SIZE = 16;

    constexpr Uuid(unsigned long long high, unsigned long long low) noexcept : Uuid(low) {
        for (std::size_t i = SIZE / 2; i > 0; --i) {
            bytes_[i - 1] = static_cast<std::uint8_t>(high & 0xffU);
            high >>= 8U;
        }
    }

    std::array<std::uint8_t, SIZE> bytes_{};
};

inline constexpr Uuid Uuid::NIL{};
inline constexpr Uuid Uuid::UNKNOWN{~0ULL, ~0ULL};

} // namespace zym::common
