#include "reading.hpp"

#include <zym/common/lwjson.hpp>

#include <utility>

namespace mqtt {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

template <>
char const* const MqttData<Reading>::TOPIC_SUFFIX = "reading";

template <>
MqttData<Reading>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic + TOPIC_SUFFIX, 2, true) {}

template <>
void MqttData<Reading>::serialize(Topic const& /*topic*/, std::string& payload,
                                  Reading const& reading) {
    Serializer out(payload);
    out.appendKey("value");
    out.addValue(reading.value);
    out.appendKey("unit");
    out.addValue(reading.unit);
    out.finalize();
}

template <>
void MqttData<Reading>::deserialize(Topic const& /*topic*/, std::string const& payload, bool empty,
                                    Reading& reading) {
    if (empty) {
        return;
    }
    Deserializer const in(payload);
    Reading read;
    Deserializer::extractValue(in.getMember("value"), read.value, "");
    Deserializer::extractValue(in.getMember("unit"), read.unit, "");
    reading = std::move(read);
}

} // namespace mqtt
