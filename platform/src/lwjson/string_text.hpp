#pragma once

#include <string>
#include <string_view>

namespace zym::common::lwjson {

/// The content of a JSON string.
/// @param body what stands between the quotation marks
/// @throws std::invalid_argument for anything that must not stand there, and for half of a
///         surrogate pair
std::string decodeString(std::string_view body);

} // namespace zym::common::lwjson
