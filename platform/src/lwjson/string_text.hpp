#pragma once

#include <string>
#include <string_view>

namespace zym::common::lwjson {

/// The content of a JSON string.
/// @param literal begins and ends with a quotation mark
/// @throws std::invalid_argument for anything else than one JSON string, and for half of a
///         surrogate pair
std::string decodeString(std::string_view literal);

} // namespace zym::common::lwjson
