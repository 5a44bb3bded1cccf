#pragma once

#include <zym/common/lwjson.hpp>

#include <charconv>
#include <limits>

namespace mqtt {

/// Appends a member that is a whole number: the writer itself knows only texts, times and doubles.
inline void appendNumber(zym::common::lwjson::Serializer& out, char const* key,
                         unsigned int number) {
    char text[std::numeric_limits<unsigned int>::digits10 + 2];
    *std::to_chars(text, text + sizeof text - 1, number).ptr = '\0';
    out.appendKey(key);
    out.appendValue(text);
}

template <class T>
void appendMember(zym::common::lwjson::Serializer& out, char const* key, T const& value) {
    out.appendKey(key);
    out.addValue(value);
}

/// @throws std::exception when the member is missing or has another type
template <class T>
void readMember(zym::common::lwjson::Deserializer const& in, char const* key, T& value) {
    zym::common::lwjson::Deserializer::extractValue(in.getMember(key), value, "");
}

} // namespace mqtt
