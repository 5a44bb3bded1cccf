#pragma once

#include <string>
#include <string_view>

namespace zym::common::lwjson {

/// Whether a text is a number in the grammar of JSON.
bool isNumber(std::string_view text) noexcept;

/// Appends the shortest text that reads back as the same finite number, whatever the locale.
void appendNumber(std::string& json, double number);

/// Reads a text that `isNumber`, whatever the locale.
/// @throws std::out_of_range when it is too large, or too close to zero, for a double
double readNumber(std::string_view text);

} // namespace zym::common::lwjson
