#pragma once

#include "mqtt/data.hpp"
#include "mqtt/export.hpp"
#include "mqtt/fields/macros.hpp"
#include "mqtt/fields/reading.hpp"
#include "mqtt/fields/types.hpp"
#include "mqtt/fields/writing.hpp"
#include "mqtt/request_reply_data.hpp"

#include <zym/common/lwjson.hpp>

#include <string>
#include <type_traits>
#include <utility>

// Values of an application's own types: one line names the fields of a struct, and writing and
// reading follow from that.
// ```
// struct Reading { double value = 0; std::string unit; };
// ZYM_MQTT_VALUE(Reading, "reading", 2, true, value, unit)
// ```
// makes `mqtt::MqttData<Reading>` an endpoint on the level "reading" below its topic, published at
// QoS 2 and retained. A document is an object with a member for each field, in the order of the
// list, with the field's name as its key.
//
// A field is a bool (`true` or `false`); an integer (digits; a char, too: its range differs between
// processors), float or double (one that is not finite is written as `null`, which cannot be read);
// a std::string; a conv::UnixTime (seconds, or `null` for the invalid time); an enumeration (its
// number, also one without a name: so it needs a fixed underlying type, as `enum class` has); a
// struct with a list of its own (an object); a std::vector of these (an array); or a std::optional
// of these: when empty, a member is left out, and an element of an array is `null`; a member that
// is missing or `null` is read as empty.
//
// Other members of a document are skipped. When a member is missing, has another type, or is out of
// the range of its field, reading throws a `std::runtime_error` that names the field, such as
// `field "limits.high": missing`, and changes nothing. Members of the struct that are not in the
// list stay as they are.

/// Names the fields of a struct: one that is part of other values, or the payload of a request or a
/// reply. Stands in the namespace of the type, outside of functions and classes.
/// @param Type a struct that can be copied and constructed without arguments
/// @param ... its public data members, 1 to 32; also those of its base classes
#define ZYM_MQTT_FIELDS(Type, ...)                                                                 \
    static_assert(ZYM_MQTT_IS_COUNTED(ZYM_MQTT_COUNT(__VA_ARGS__)),                                \
                  "ZYM_MQTT_FIELDS and ZYM_MQTT_VALUE take at most 32 fields");                    \
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
