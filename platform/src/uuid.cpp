#include <zym/common/uuid.hpp>

#include "hex_digit.hpp"

#include <stdexcept>

namespace zym::common {

namespace {

constexpr std::size_t BYTES = 16;
using Bytes = std::array<std::uint8_t, BYTES>;

constexpr std::size_t PLAIN_LENGTH = 36;
constexpr std::size_t BASE64_LENGTH = 22;
constexpr char HEX_DIGITS[] = "0123456789abcdef";
constexpr char BASE64_DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

[[noreturn]] void fail() {
    throw std::invalid_argument("Not an identifier");
}

constexpr bool hyphenBefore(std::size_t byte) {
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

unsigned hexDigitOf(char c) {
    auto const digit = hexDigit(c);
    if (!digit) {
        fail();
    }
    return *digit;
}

// Compares ranges, as `hexDigit` does.
unsigned base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') {
        return static_cast<unsigned>(c - 'A');
    }
    if (c >= 'a' && c <= 'z') {
        return static_cast<unsigned>(c - 'a') + 26U;
    }
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0') + 52U;
    }
    if (c == '-') {
        return 62U;
    }
    if (c == '_') {
        return 63U;
    }
    fail();
}

Bytes fromPlain(std::string const& text) {
    Bytes bytes{};
    std::size_t at = 0;
    for (std::size_t i = 0; i < BYTES; ++i) {
        if (hyphenBefore(i) && text[at++] != '-') {
            fail();
        }
        unsigned const high = hexDigitOf(text[at++]);
        bytes[i] = static_cast<std::uint8_t>(high << 4U | hexDigitOf(text[at++]));
    }
    return bytes;
}

Bytes fromBase64(std::string const& text) {
    Bytes bytes{};
    std::size_t next = 0;
    unsigned bits = 0;
    unsigned pending = 0;
    for (char const c : text) {
        bits = (bits << 6U | base64Digit(c)) & 0xffffU;
        pending += 6;
        if (pending >= 8) {
            pending -= 8;
            bytes[next++] = static_cast<std::uint8_t>(bits >> pending & 0xffU);
        }
    }
    unsigned const spare = bits & ((1U << pending) - 1U);
    if (spare != 0) {
        fail();
    }
    return bytes;
}

Bytes parse(std::string const& text) {
    switch (text.size()) {
    case PLAIN_LENGTH:
        return fromPlain(text);
    case BASE64_LENGTH:
        return fromBase64(text);
    default:
        fail();
    }
}

} // namespace

Uuid::Uuid(std::string const& text) : bytes_(parse(text)) {}

std::string Uuid::to_string() const {
    std::string text;
    text.reserve(PLAIN_LENGTH);
    for (std::size_t i = 0; i < SIZE; ++i) {
        if (hyphenBefore(i)) {
            text += '-';
        }
        text += HEX_DIGITS[bytes_[i] >> 4U];
        text += HEX_DIGITS[bytes_[i] & 0xfU];
    }
    return text;
}

std::string Uuid::base64URL() const {
    std::string text;
    text.reserve(BASE64_LENGTH);
    unsigned bits = 0;
    unsigned pending = 0;
    for (std::uint8_t const byte : bytes_) {
        bits = (bits << 8U | byte) & 0xffffU;
        pending += 8;
        while (pending >= 6) {
            pending -= 6;
            text += BASE64_DIGITS[bits >> pending & 0x3fU];
        }
    }
    text += BASE64_DIGITS[bits << (6U - pending) & 0x3fU];
    return text;
}

} // namespace zym::common
