#include "number_text.hpp"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <stdexcept>

namespace zym::common::lwjson {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Drops leading digits. Returns whether there were any.
bool dropDigits(std::string_view& text) {
    auto const* const end = std::find_if_not(text.begin(), text.end(), isDigit);
    auto const digits = static_cast<std::size_t>(end - text.begin());
    text.remove_prefix(digits);
    return digits > 0;
}

bool dropIf(std::string_view& text, char c) {
    bool const isThere = !text.empty() && text.front() == c;
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

bool dropInteger(std::string_view& text) {
    return dropIf(text, '0') || dropDigits(text);
}

bool dropFraction(std::string_view& text) {
    return !dropIf(text, '.') || dropDigits(text);
}

bool dropExponent(std::string_view& text) {
    if (!dropIf(text, 'e') && !dropIf(text, 'E')) {
        return true;
    }
    if (!dropIf(text, '+')) {
        dropIf(text, '-');
    }
    return dropDigits(text);
}

// Writes a point and up to three decimals; nothing for zero.
char* writeDecimals(char* to, unsigned thousandths) {
    if (thousandths > 0) {
        *to++ = '.';
    }
    for (unsigned unit = 100; thousandths > 0; unit /= 10) {
        *to++ = static_cast<char>('0' + thousandths / unit);
        thousandths %= unit;
    }
    return to;
}

// Writes a number with at most three decimals, as most times and measurements have: three to seven
// times faster than the standard library. Writes nothing for other numbers, and for those that are
// shorter with an exponent.
//
// Below MAX_SIZE a double holds the thousandths exactly, and no two of them are the same double.
// Their quotient is rounded once, to the double nearest to the number meant, unless the processor
// computes with more digits than a double has.
char* writeWithFewDecimals(char* to, double number) {
    constexpr bool QUOTIENT_IS_NEAREST = FLT_EVAL_METHOD == 0;
    constexpr double MAX_SIZE = 1e12;
    constexpr std::uint64_t ONE = 1000;
    constexpr std::uint64_t MANY_ZEROS = 100000;
    constexpr double TO_ROUND = 0.5; // may round to the wrong side: the quotient shows it
    double const size = std::fabs(number);
    if (!QUOTIENT_IS_NEAREST || size >= MAX_SIZE) {
        return to;
    }
    auto const thousandths = static_cast<std::uint64_t>(size * ONE + TO_ROUND);
    if (static_cast<double>(thousandths) / ONE != size
        || (thousandths % (ONE * MANY_ZEROS) == 0 && thousandths != 0)) {
        return to;
    }
    if (std::signbit(number)) {
        *to++ = '-';
    }
    to = std::to_chars(to, to + LONGEST_NUMBER - 1, thousandths / ONE).ptr;
    return writeDecimals(to, static_cast<unsigned>(thousandths % ONE));
}

} // namespace

bool isInteger(std::string_view text) noexcept {
    return dropInteger(text) && text.empty();
}

bool isNumber(std::string_view text) noexcept {
    dropIf(text, '-');
    return dropInteger(text) && dropFraction(text) && dropExponent(text) && text.empty();
}

char* writeNumber(char* to, double number) {
    char* const end = writeWithFewDecimals(to, number);
    return end != to ? end : std::to_chars(to, to + LONGEST_NUMBER, number).ptr;
}

double readNumber(std::string_view text) {
    double number = 0;
    auto const result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc()) {
        throw std::out_of_range("Number out of the range of a double");
    }
    return number;
}

} // namespace zym::common::lwjson
