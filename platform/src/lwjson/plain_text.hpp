#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace zym::common::lwjson {

/// Whether a byte may stand in a JSON string as it is.
constexpr bool isPlain(char c) noexcept {
    return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\';
}

/// Eight bytes of a text, tested together.
class EightBytes {
public:
    static constexpr std::size_t SIZE = sizeof(std::uint64_t);
    static constexpr std::size_t HALF = sizeof(std::uint32_t);

    explicit EightBytes(char const* at) noexcept : bytes_(load<std::uint64_t>(at)) {}
    /// Two groups of four bytes, which may overlap.
    EightBytes(char const* first, char const* second) noexcept
        : bytes_(load<std::uint32_t>(first)) {
        bytes_ |= std::uint64_t{load<std::uint32_t>(second)} << 32U;
    }

    /// Whether the first byte is the lowest of a number, as on nearly all processors.
    static bool isLittleEndian() noexcept { return load<std::uint16_t>("\1\0") == 1; }

    bool arePlain() const noexcept { return notPlain() == 0; }

    /// How many plain bytes stand before the first that is not plain. There must be one, and the
    /// processor must be little-endian.
    std::size_t plainBytesAtStart() const noexcept {
        std::uint64_t const found = notPlain();
        std::uint64_t const below = (found & (~found + 1)) - 1;
        return static_cast<std::size_t>((below & ONES) * ONES >> 56U) - 1;
    }

private:
    static constexpr std::uint64_t ONES = 0x0101010101010101U;
    static constexpr std::uint64_t TOPS = 0x8080808080808080U;

    template <class Word>
    static Word load(char const* bytes) noexcept {
        Word word = 0;
        std::memcpy(&word, bytes, sizeof word);
        return word;
    }

    // The top bit of the first byte that is not plain, and perhaps of bytes behind it.
    // Inverting one bit moves the quotation mark next to the control bytes.
    std::uint64_t notPlain() const noexcept {
        std::uint64_t const controlOrQuote = (bytes_ ^ ONES * 0x02U) - ONES * 0x21U;
        std::uint64_t const backslash = (bytes_ ^ ONES * '\\') - ONES;
        return (controlOrQuote | backslash) & ~bytes_ & TOPS;
    }

    std::uint64_t bytes_;
};

/// Whether all of a text is plain. The last word overlaps the one before it, so that no bytes are
/// tested one by one: texts are short.
inline bool isAllPlain(std::string_view text) noexcept {
    char const* const end = text.data() + text.size();
    if (text.size() < EightBytes::HALF) {
        return std::all_of(text.begin(), text.end(), isPlain);
    }
    if (text.size() < EightBytes::SIZE) {
        return EightBytes(text.data(), end - EightBytes::HALF).arePlain();
    }
    for (char const* at = text.data(); at < end - EightBytes::SIZE; at += EightBytes::SIZE) {
        if (!EightBytes(at).arePlain()) {
            return false;
        }
    }
    return EightBytes(end - EightBytes::SIZE).arePlain();
}

/// The first byte that is not plain; the end when all are.
inline char const* endOfPlain(char const* at, char const* end) noexcept {
    while (EightBytes::isLittleEndian() && static_cast<std::size_t>(end - at) >= EightBytes::SIZE) {
        EightBytes const bytes(at);
        if (!bytes.arePlain()) {
            return at + bytes.plainBytesAtStart();
        }
        at += EightBytes::SIZE;
    }
    return std::find_if_not(at, end, isPlain);
}

} // namespace zym::common::lwjson
