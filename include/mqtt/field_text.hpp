#pragma once

// What `mqtt/fields.hpp` needs that does not depend on the type of a value. Applications do not use
// it.

#include "mqtt/export.hpp"

#include <zym/common/lwjson.hpp>

#include <string>
#include <string_view>
#include <utility>

namespace mqtt::fields {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

/// The text of a member: a string view, or a pointer in other platform libraries.
using MemberText = decltype(std::declval<Deserializer const&>().getMember(""));

// The text of a value is a `MemberText`, or a string for an element of an array.

inline std::string_view viewOf(std::string_view text) {
    return text;
}
inline std::string_view viewOf(char const* text) {
    return text == nullptr ? std::string_view() : text;
}
inline std::string_view viewOf(std::string const& text) {
    return text;
}

inline MemberText memberTextOf(MemberText text) {
    return text;
}
inline MemberText memberTextOf(std::string const& text) {
    return text.c_str();
}

inline std::string stringOf(MemberText text) {
    return std::string(viewOf(text));
}
inline std::string const& stringOf(std::string const& text) {
    return text;
}

/// Appends a whole number: an `int`, `unsigned int`, `long long` or `unsigned long long`.
template <class Integer>
ZYM_MQTT_EXPORT void appendInteger(Serializer& out, Integer number);

/// Puts a comma behind an element of an array, whatever the writer has put there.
ZYM_MQTT_EXPORT void endElement(std::string& json);

/// @throws std::runtime_error "missing"
[[noreturn]] ZYM_MQTT_EXPORT void failMissing();

/// @throws std::runtime_error the text is no whole number, or one out of the range
template <class Integer>
ZYM_MQTT_EXPORT Integer readInteger(std::string_view text, Integer min, Integer max);

/// @throws std::runtime_error neither `true` nor `false`
ZYM_MQTT_EXPORT bool readBool(std::string_view text);

/// @throws std::runtime_error too large for a float
ZYM_MQTT_EXPORT float toFloat(double number);

/// Calls `readElement` for each element of an array.
/// @throws std::runtime_error the text is no array, or an element cannot be read
ZYM_MQTT_EXPORT void readElements(std::string_view array, void* to,
                                  void (*readElement)(void* to, std::string const& element));

/// For a catch block: throws the exception again, as a `std::runtime_error` whose text begins with
/// the path of the field. One that is no failure of reading passes unchanged.
/// @param key null: the document is no object
[[noreturn]] ZYM_MQTT_EXPORT void rethrowForField(char const* key);

} // namespace mqtt::fields
