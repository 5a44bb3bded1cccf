#include "number_text.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <stdexcept>

// Floating-point <charconv> came with GCC 11. The macro lets a test build choose the other way.
#if defined(__cpp_lib_to_chars) && !defined(ZYM_COMMON_NO_FLOATING_CHARCONV)
#define ZYM_COMMON_FLOATING_CHARCONV
#else
#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#endif

namespace zym::common::lwjson {

namespace {

// Drops leading digits; tells whether there were any.
bool dropDigits(std::string_view& text) {
    std::size_t const end = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(end);
    return end > 0;
}

bool dropOneOf(std::string_view& text, std::string_view characters) {
    if (text.empty() || characters.find(text.front()) == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

bool dropInteger(std::string_view& text) {
    return dropOneOf(text, "0") || dropDigits(text);
}

bool dropFraction(std::string_view& text) {
    return !dropOneOf(text, ".") || dropDigits(text);
}

bool dropExponent(std::string_view& text) {
    if (!dropOneOf(text, "eE")) {
        return true;
    }
    dropOneOf(text, "+-");
    return dropDigits(text);
}

[[noreturn]] void failRange() {
    throw std::out_of_range("Number out of the range of a double");
}

} // namespace

bool isNumber(std::string_view text) noexcept {
    dropOneOf(text, "-");
    return dropInteger(text) && dropFraction(text) && dropExponent(text) && text.empty();
}

#ifdef ZYM_COMMON_FLOATING_CHARCONV

void appendNumber(std::string& json, double number) {
    char buffer[32]; // the longest is "-2.2250738585072014e-308"
    auto const result = std::to_chars(std::begin(buffer), std::end(buffer), number);
    json.append(buffer, result.ptr);
}

double readNumber(std::string_view text) {
    double number = 0;
    auto const result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc()) {
        failRange();
    }
    return number;
}

#else

namespace {

// Gives infinity for what is too large.
double readNearest(std::string const& text) {
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    double number = 0;
    return stream >> number ? number : std::numeric_limits<double>::infinity();
}

bool isZero(std::string_view text) {
    std::size_t const digit = text.find_first_of("123456789eE");
    return digit == std::string_view::npos || text[digit] == 'e' || text[digit] == 'E';
}

std::string textWith(int digits, double number) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream.precision(digits);
    stream << number;
    return stream.str();
}

} // namespace

void appendNumber(std::string& json, double number) {
    int digits = 1;
    std::string text = textWith(digits, number);
    while (digits < std::numeric_limits<double>::max_digits10 && readNearest(text) != number) {
        text = textWith(++digits, number);
    }
    json += text;
}

double readNumber(std::string_view text) {
    double const number = readNearest(std::string(text));
    if (std::isinf(number) || (number == 0 && !isZero(text))) {
        failRange();
    }
    return number;
}

#endif

} // namespace zym::common::lwjson
