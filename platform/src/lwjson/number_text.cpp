#include "number_text.hpp"

#include "number_way.hpp"

#include <algorithm>
#include <array>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

namespace zym::common::lwjson {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Drops leading digits; tells whether there were any.
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

// Texts of so few digits are as good as exact: no two of them are read as the same double, and a
// double holds their digits as an integer. A quotient of two integers that it holds is rounded
// once, to the double that is nearest to the number meant. Unless the processor has more digits.
constexpr bool QUOTIENTS_ARE_NEAREST = FLT_EVAL_METHOD == 0;
constexpr std::size_t EXACT_DIGITS = std::numeric_limits<double>::digits10;
constexpr std::array<double, EXACT_DIGITS + 1> POWERS_OF_TEN{
    1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// Reads a number without an exponent.
std::optional<double> readPlain(std::string_view text) {
    bool const isNegative = dropIf(text, '-');
    if (text.size() > EXACT_DIGITS) {
        return std::nullopt;
    }
    std::uint64_t digits = 0;
    std::size_t decimals = 0;
    for (char const* at = text.begin(); at != text.end(); ++at) {
        if (isDigit(*at)) {
            digits = digits * 10U + static_cast<unsigned>(*at - '0');
        } else if (*at == '.') {
            decimals = static_cast<std::size_t>(text.end() - at - 1);
        } else {
            return std::nullopt;
        }
    }
    double const size = static_cast<double>(digits) / POWERS_OF_TEN[decimals];
    return isNegative ? -size : size;
}

// Writes thousandths, a fraction of one.
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

// Writes a number that has up to three decimals, as the times and measurements of most have.
// Nothing is written of another number, nor of one that is shorter with an exponent.
char* writePlain(char* to, double number) {
    constexpr std::uint64_t ONE = 1000;
    constexpr std::uint64_t MANY_ZEROS = 100000;
    constexpr double ROUNDED = 0.5; // nearly always right, and looked at below
    double const size = std::fabs(number);
    if (!QUOTIENTS_ARE_NEAREST || size >= POWERS_OF_TEN[EXACT_DIGITS - 3]) {
        return to;
    }
    auto const thousandths = static_cast<std::uint64_t>(size * ONE + ROUNDED);
    if (static_cast<double>(thousandths) / ONE != size
        || (thousandths % (ONE * MANY_ZEROS) == 0 && thousandths != 0)) {
        return to;
    }
    if (std::signbit(number)) {
        *to++ = '-';
    }
    to = std::to_chars(to, to + EXACT_DIGITS, thousandths / ONE).ptr;
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
    char* const behind = writePlain(to, number);
    return behind != to ? behind : writeAny(to, number);
}

double readNumber(std::string_view text) {
    auto const number = QUOTIENTS_ARE_NEAREST ? readPlain(text) : std::nullopt;
    return number ? *number : readAny(text);
}

} // namespace zym::common::lwjson
