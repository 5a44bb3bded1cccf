#pragma once

// Which types are fields, as `mqtt/fields.hpp` sees them.

#include <conv/unix_time.hpp>

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace mqtt::fields {

/// Lets the compiler find what the macros declare for exactly this type.
template <class T>
struct Of {};

/// How an endpoint publishes.
struct Publication {
    char const* level;
    int qos;
    bool retained;
};

struct IgnoreField {
    template <class Member>
    void operator()(char const* /*key*/, Member /*member*/) const {}
};

template <class T, class = void>
inline constexpr bool HAS_FIELDS = false;
template <class T>
inline constexpr bool HAS_FIELDS<T, std::void_t<decltype(zymMqttFields(Of<T>(), IgnoreField()))>> =
    true;

template <class T, class = void>
inline constexpr bool HAS_PUBLICATION = false;
template <class T>
inline constexpr bool HAS_PUBLICATION<T, std::void_t<decltype(zymMqttPublication(Of<T>()))>> = true;

template <class T>
inline constexpr bool IS_OPTIONAL = false;
template <class T>
inline constexpr bool IS_OPTIONAL<std::optional<T>> = true;

template <class T>
inline constexpr bool IS_VECTOR = false;
template <class T>
inline constexpr bool IS_VECTOR<std::vector<T>> = true;

template <class T>
inline constexpr bool IS_VECTOR_OF_OBJECTS = false;
template <class T>
inline constexpr bool IS_VECTOR_OF_OBJECTS<std::vector<T>> = HAS_FIELDS<T>;

/// What the platform's writer and reader know.
template <class T>
inline constexpr bool IS_OF_THE_PLATFORM =
    std::is_same_v<T, std::string> || std::is_same_v<T, double>
    || std::is_same_v<T, conv::UnixTime>;

/// The integer in which an integer travels: small ones need no 64-bit arithmetic.
template <class T>
using Wide =
    std::conditional_t<sizeof(T) <= sizeof(int),
                       std::conditional_t<std::is_signed_v<T>, int, unsigned>,
                       std::conditional_t<std::is_signed_v<T>, long long, unsigned long long>>;

// The messages are for the compiler's first error line.

template <class T>
constexpr void requireForm() {
    static_assert(HAS_FIELDS<T> || IS_OF_THE_PLATFORM<T> || std::is_same_v<T, float>
                      || std::is_integral_v<T> || std::is_enum_v<T> || IS_OPTIONAL<T>
                      || IS_VECTOR<T>,
                  "The type of this field has no form in a document: use bool, an integer, float, "
                  "double, std::string, conv::UnixTime, an enumeration, a std::optional or a "
                  "std::vector of these, or a struct with ZYM_MQTT_FIELDS(Struct, field...)");
}

template <class T>
constexpr bool requireFields() {
    static_assert(HAS_FIELDS<T>,
                  "This type has no list of fields: write ZYM_MQTT_VALUE(Type, \"level\", qos, "
                  "retained, field...) for the value of an endpoint, ZYM_MQTT_FIELDS(Type, "
                  "field...) for a payload, in the namespace of the type");
    return HAS_FIELDS<T>;
}

template <class T>
constexpr Publication publicationOf() {
    if constexpr (HAS_PUBLICATION<T>) {
        return zymMqttPublication(Of<T>());
    } else if constexpr (requireFields<T>()) {
        static_assert(HAS_PUBLICATION<T>,
                      "This type is not the value of an endpoint yet: write ZYM_MQTT_VALUE(Type, "
                      "\"level\", qos, retained, field...) instead of ZYM_MQTT_FIELDS(Type, "
                      "field...)");
    }
    return {"", 0, false};
}

} // namespace mqtt::fields
