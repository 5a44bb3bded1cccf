#pragma once

#include <zym/common/lwjson.hpp>

#include <charconv>
#include <limits>

namespace mqtt {

/// Appends a member that is a bare number: the writer itself knows texts, times and doubles only.
inline void appendNumber(zym::common::lwjson::Serializer& out, char const* key,
                         unsigned int number) {
    char text[std::numeric_limits<unsigned int>::digits10 + 2];
    *std::to_chars(text, text + sizeof text - 1, number).ptr = '\0';
    out.appendKey(key);
    out.appendValue(text);
}

} // namespace mqtt
