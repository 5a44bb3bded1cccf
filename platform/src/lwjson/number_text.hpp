#pragma once

#include <cstddef>
#include <string_view>

namespace zym::common::lwjson {

/// Whether a text is an integer in the grammar of JSON, without a sign.
bool isInteger(std::string_view text) noexcept;

/// Whether a text is a number in the grammar of JSON.
bool isNumber(std::string_view text) noexcept;

/// Room for any number: the longest is "-2.2250738585072014e-308".
constexpr std::size_t LONGEST_NUMBER = 24;

/// Writes the shortest text that reads back as the same finite number, whatever the locale.
/// @param to room for LONGEST_NUMBER
/// @return behind what was written
char* writeNumber(char* to, double number);

/// Reads a text that `isNumber`, whatever the locale.
/// @throws std::out_of_range when it is too large, or too close to zero, for a double
double readNumber(std::string_view text);

} // namespace zym::common::lwjson
