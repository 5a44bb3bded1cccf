#include "number_way.hpp"

#ifndef ZYM_COMMON_FLOATING_CHARCONV

#include <algorithm>
#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

namespace zym::common::lwjson {

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

char* writeAny(char* to, double number) {
    int digits = 1;
    std::string text = textWith(digits, number);
    while (digits < std::numeric_limits<double>::max_digits10 && readNearest(text) != number) {
        text = textWith(++digits, number);
    }
    return std::copy(text.begin(), text.end(), to);
}

double readAny(std::string_view text) {
    double const number = readNearest(std::string(text));
    if (std::isinf(number) || (number == 0 && !isZero(text))) {
        failNumberRange();
    }
    return number;
}

} // namespace zym::common::lwjson

#endif
