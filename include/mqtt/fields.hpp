#pragma once

#include "mqtt/data.hpp"
#include "mqtt/export.hpp"
#include "mqtt/field_macros.hpp"
#include "mqtt/field_text.hpp"
#include "mqtt/request_reply_data.hpp"

#include <conv/unix_time.hpp>
#include <zym/common/lwjson.hpp>

#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Values of an application's own types: one line names the fields of a struct, and writing and
// reading follow from that.
// ```
// struct Reading { double value; std::string unit; };
// ZYM_MQTT_VALUE(Reading, "reading", 2, true, value, unit)
// ```
// makes `mqtt::MqttData<Reading>` an endpoint on the level "reading" below its topic, published at
// QoS 2 and retained. A document has one member for each field, in the order of the list, with the
// field's name as its key.
//
// ### Types of fields
// | field                          | in the document                                            |
// |--------------------------------|------------------------------------------------------------|
// | `bool`                         | `true` or `false`                                          |
// | integers, also `char`          | a whole number; one out of the type's range cannot be read |
// | `float`, `double`              | a number; one that is not finite is written as `null`,     |
// |                                | which cannot be read                                       |
// | `std::string`                  | a text                                                     |
// | `conv::UnixTime`               | seconds, or `null` for the invalid time                    |
// | enumerations                   | their number; numbers without a name are read, too         |
// | `std::optional<F>`             | as F; no member when it is empty. Read as empty when the   |
// |                                | member is missing or `null`                                |
// | `std::vector<F>`               | an array; an empty optional element is `null`              |
// | structs with a list of fields  | an object                                                  |
//
// ### Reading
// Members without a field are skipped. When a member is missing, or has another type, reading
// throws a `std::runtime_error` whose text names the field, such as `field "limits.high": missing`,
// and the value is unchanged. After success the fields have what was read; members of the struct
// that are not in the list are unchanged.

/// Names the fields of a struct: one that is part of other values, or the payload of a request or a
/// reply. Stands in the namespace of the type, outside of functions and classes.
/// @param Type a struct that can be copied and constructed without arguments
/// @param ... its public data members, 1 to 32; also those of its base classes
#define ZYM_MQTT_FIELDS(Type, ...)                                                                 \
    template <class Visit>                                                                         \
    constexpr void zymMqttFields(::mqtt::fields::Of<Type>, Visit&& visit) {                        \
        ZYM_MQTT_EACH(ZYM_MQTT_VISIT, Type, __VA_ARGS__)                                           \
    }

/// Names the fields of a struct that is the value of an `mqtt::MqttData`, and says how the endpoint
/// publishes it.
/// @param level appended to the endpoint's topic; "": none
/// @param qos of every publication, 0 to 2
/// @param retained of every publication: true or false
#define ZYM_MQTT_VALUE(Type, level, qos, retained, ...)                                            \
    static_assert((qos) >= 0 && (qos) <= 2,                                                        \
                  "ZYM_MQTT_VALUE(Type, level, qos, retained, field...): qos is 0, 1 or 2");       \
    static_assert(std::is_same_v<std::decay_t<decltype(retained)>, bool>,                          \
                  "ZYM_MQTT_VALUE(Type, level, qos, retained, field...): retained is true or "     \
                  "false");                                                                        \
    [[maybe_unused]] constexpr ::mqtt::fields::Publication zymMqttPublication(                     \
        ::mqtt::fields::Of<Type>) {                                                                \
        return {level, qos, retained};                                                             \
    }                                                                                              \
    ZYM_MQTT_FIELDS(Type, __VA_ARGS__)

#define ZYM_MQTT_VISIT(Type, field) visit(#field, &Type::field);

namespace mqtt {

/// How values become documents. Applications do not use it.
namespace fields {

/// Lets the compiler find what the macros declare for exactly this type.
template <class T>
struct Of {};

/// How an endpoint publishes.
struct Publication {
    char const* level;
    int qos;
    bool retained;
};

struct NoVisit {
    template <class Member>
    void operator()(char const*, Member) const {}
};

template <class T, class = void>
inline constexpr bool HAS_FIELDS = false;
template <class T>
inline constexpr bool HAS_FIELDS<T, std::void_t<decltype(zymMqttFields(Of<T>(), NoVisit()))>> =
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

template <class T>
inline constexpr bool IS_NUMBER = std::is_same_v<T, float> || std::is_same_v<T, double>;

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

template <class T>
constexpr void requireForm() {
    static_assert(HAS_FIELDS<T> || IS_OF_THE_PLATFORM<T> || IS_NUMBER<T> || std::is_integral_v<T>
                      || std::is_enum_v<T> || IS_OPTIONAL<T> || IS_VECTOR<T>,
                  "The type of this field has no form in a document: use bool, an integer, float, "
                  "double, std::string, conv::UnixTime, an enumeration, a std::optional or a "
                  "std::vector of these, or a struct with ZYM_MQTT_FIELDS(Struct, field...)");
}

/// @return whether there is one; the message is for the compiler's first error line
template <class T>
constexpr bool requireFields() {
    static_assert(HAS_FIELDS<T>,
                  "This type has no list of fields: write ZYM_MQTT_VALUE(Type, \"level\", qos, "
                  "retained, field...) for the value of an endpoint, ZYM_MQTT_FIELDS(Type, "
                  "field...) for a payload, in the namespace of the type");
    return HAS_FIELDS<T>;
}

// Writing

template <class T>
void writeFields(Serializer& out, T const& value);

template <class T>
void writeValue(Serializer& out, T const& value);

template <class T>
void writeObject(Serializer& out, T const& value) {
    std::string json;
    Serializer object(json);
    writeFields(object, value);
    object.finalize();
    out.addValue(object);
}

/// On one line.
template <class T>
void writeArray(Serializer& out, std::vector<T> const& elements) {
    auto& json = out.mutableJson();
    json += '[';
    for (T const& element : elements) {
        writeValue(out, element);
        endElement(json);
    }
    if (!elements.empty()) {
        json.pop_back();
    }
    out.appendValue("]");
}

/// Each element on a line of its own.
template <class T>
void writeObjects(Serializer& out, std::vector<T> const& elements) {
    std::vector<Serializer> objects;
    objects.reserve(elements.size());
    std::string json;
    for (T const& element : elements) {
        Serializer object(json);
        writeFields(object, element);
        object.finalize();
        objects.emplace_back(std::as_const(json));
    }
    out.addValue(objects);
}

/// An element of an array. An empty member is left out.
template <class T>
void writeOptional(Serializer& out, std::optional<T> const& value) {
    if (value) {
        writeValue(out, *value);
    } else {
        out.appendValue("null");
    }
}

template <class T>
void writeValue(Serializer& out, T const& value) {
    requireForm<T>();
    if constexpr (HAS_FIELDS<T>) {
        writeObject(out, value);
    } else if constexpr (IS_OF_THE_PLATFORM<T>) {
        out.addValue(value);
    } else if constexpr (std::is_same_v<T, bool>) {
        out.appendValue(value ? "true" : "false");
    } else if constexpr (IS_NUMBER<T>) {
        out.addValue(static_cast<double>(value));
    } else if constexpr (std::is_enum_v<T>) {
        writeValue(out, static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_integral_v<T>) {
        appendInteger(out, static_cast<Wide<T>>(value));
    } else if constexpr (IS_OPTIONAL<T>) {
        writeOptional(out, value);
    } else if constexpr (IS_VECTOR<T>) {
        writeArray(out, value);
    }
}

template <class T>
void writeMember(Serializer& out, char const* key, T const& value) {
    if constexpr (IS_OPTIONAL<T>) {
        if (value) {
            writeMember(out, key, *value);
        }
    } else {
        out.appendKey(key);
        if constexpr (IS_VECTOR_OF_OBJECTS<T>) {
            writeObjects(out, value);
        } else {
            writeValue(out, value);
        }
    }
}

/// Writes the members of an object.
template <class T>
void writeFields(Serializer& out, T const& value) {
    if constexpr (requireFields<T>()) {
        zymMqttFields(Of<T>(),
                      [&](char const* key, auto member) { writeMember(out, key, value.*member); });
    }
}

// Reading: into new objects, so that a failure changes nothing.

template <class T>
void readFields(Deserializer const& in, T& value);

template <class Text, class T>
void readValue(Text const& text, T& value);

template <class Text, class T>
void readOptional(Text const& text, std::optional<T>& value) {
    if (!viewOf(text).empty() && viewOf(text) != "null") {
        readValue(text, value.emplace());
    }
}

template <class Text, class T>
void readArray(Text const& text, std::vector<T>& elements) {
    readElements(viewOf(text), &elements, [](void* to, std::string const& element) {
        T value{};
        readValue(element, value);
        static_cast<std::vector<T>*>(to)->push_back(std::move(value));
    });
}

template <class Text, class T>
void readObject(Text const& text, T& value) {
    std::string const& json = stringOf(text);
    readFields(Deserializer(json), value);
}

template <class T, class Text>
T integerOf(Text const& text) {
    using Limits = std::numeric_limits<T>;
    return static_cast<T>(readInteger<Wide<T>>(viewOf(text), Limits::min(), Limits::max()));
}

template <class T, class Text>
T numberOf(Text const& text) {
    double number = 0;
    Deserializer::extractValue(memberTextOf(text), number, "");
    return toFloat(number);
}

template <class Text, class T>
void readPresent(Text const& text, T& value) {
    if (viewOf(text).empty()) {
        failMissing();
    }
    if constexpr (HAS_FIELDS<T>) {
        readObject(text, value);
    } else if constexpr (IS_OF_THE_PLATFORM<T>) {
        Deserializer::extractValue(memberTextOf(text), value, "");
    } else if constexpr (std::is_same_v<T, bool>) {
        value = readBool(viewOf(text));
    } else if constexpr (IS_NUMBER<T>) {
        value = numberOf<T>(text);
    } else if constexpr (std::is_enum_v<T>) {
        std::underlying_type_t<T> number{};
        readValue(text, number);
        value = static_cast<T>(number);
    } else if constexpr (std::is_integral_v<T>) {
        value = integerOf<T>(text);
    } else if constexpr (IS_VECTOR<T>) {
        readArray(text, value);
    }
}

template <class Text, class T>
void readValue(Text const& text, T& value) {
    requireForm<T>();
    if constexpr (IS_OPTIONAL<T>) {
        readOptional(text, value);
    } else {
        readPresent(text, value);
    }
}

/// Reads the members of an object.
template <class T>
void readFields(Deserializer const& in, T& value) {
    char const* current = nullptr;
    try {
        zymMqttFields(Of<T>(), [&](char const* key, auto member) {
            auto const text = in.getMember(key);
            current = key;
            readValue(text, value.*member);
        });
    } catch (std::exception const&) {
        rethrowForField(current);
    }
}

/// Reads the members of an object, all or none, and leaves other members as they are.
template <class T>
void readAll(Deserializer const& in, T& value) {
    if constexpr (requireFields<T>()) {
        T read{};
        readFields(in, read);
        zymMqttFields(Of<T>(), [&](char const* /*key*/, auto member) {
            value.*member = std::move(read.*member);
        });
    }
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

} // namespace fields

/// The payload of a request or a reply: the fields of `T`, which ZYM_MQTT_FIELDS or ZYM_MQTT_VALUE
/// has named, are members of the message.
template <class T>
class ZYM_MQTT_EXPORT Payload final : public RequestReplyData {
public:
    Payload() = default;
    explicit Payload(T initial) : value(std::move(initial)) {}

    /// @throws std::runtime_error a field cannot be read; the value is unchanged
    void deserialize(zym::common::lwjson::Deserializer& in) override { fields::readAll(in, value); }
    void serialize(zym::common::lwjson::Serializer& out) const override {
        fields::writeFields(out, value);
    }

    T value{};
};

template <class T>
char const* const MqttData<T>::TOPIC_SUFFIX = fields::publicationOf<T>().level;

template <class T>
MqttData<T>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic + fields::publicationOf<T>().level, fields::publicationOf<T>().qos,
                   fields::publicationOf<T>().retained) {}

template <class T>
void MqttData<T>::serialize(Topic const& /*topic*/, std::string& payload, T const& value) {
    zym::common::lwjson::Serializer out(payload);
    fields::writeFields(out, value);
    out.finalize();
}

template <class T>
void MqttData<T>::deserialize(Topic const& /*topic*/, std::string const& payload, bool empty,
                              T& value) {
    if (!empty) {
        fields::readAll(zym::common::lwjson::Deserializer(payload), value);
    }
}

} // namespace mqtt
