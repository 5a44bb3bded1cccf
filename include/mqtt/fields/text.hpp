#pragma once

// What the templates of `mqtt/fields.hpp` call that does not depend on the type of a value.

#include "mqtt/export.hpp"

#include <zym/common/lwjson.hpp>

#include <string>
#include <string_view>

namespace mqtt::fields {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

/// Puts a comma behind an element of an array, without blanks.
ZYM_MQTT_EXPORT void appendComma(std::string& json);

/// @throws std::runtime_error "missing"
[[noreturn]] ZYM_MQTT_EXPORT void failMissing();

/// @throws std::runtime_error the text is no whole number, or one out of the range
template <class Integer>
ZYM_MQTT_EXPORT Integer readInteger(std::string_view text, Integer min, Integer max);

/// @throws std::runtime_error neither `true` nor `false`
ZYM_MQTT_EXPORT bool readBool(std::string_view text);

/// @throws std::runtime_error too large for a float
ZYM_MQTT_EXPORT float toFloat(double number);

/// Calls `readElement` for each element of an array. Behind its text stands a zero byte, if the
/// platform's reader needs one.
/// @throws std::runtime_error the text is no array, or an element cannot be read
ZYM_MQTT_EXPORT void readElements(std::string_view array, void* to,
                                  void (*readElement)(void* to, std::string_view element));

/// For a catch block: throws the exception again, as a `std::runtime_error` whose text begins with
/// the path of the field. Missing memory stays a `std::bad_alloc`.
/// @param key null: no field is to blame, the exception stays as it is
[[noreturn]] ZYM_MQTT_EXPORT void rethrowForField(char const* key);

} // namespace mqtt::fields
