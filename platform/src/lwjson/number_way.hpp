#pragma once

#include <charconv>
#include <stdexcept>
#include <string_view>

// Floating-point <charconv> came with GCC 11. The macro lets a test build choose the other way.
#if defined(__cpp_lib_to_chars) && !defined(ZYM_COMMON_NO_FLOATING_CHARCONV)
#define ZYM_COMMON_FLOATING_CHARCONV
#endif

namespace zym::common::lwjson {

/// As `writeNumber` and `readNumber`, for all numbers alike: one way or the other.
char* writeAny(char* to, double number);
double readAny(std::string_view text);

[[noreturn]] inline void failNumberRange() {
    throw std::out_of_range("Number out of the range of a double");
}

} // namespace zym::common::lwjson
