#include "fill_level.hpp"

#include <zym/common/lwjson.hpp>

namespace mqtt {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

template <>
char const* const MqttData<FillLevel>::TOPIC_SUFFIX = "level";

template <>
MqttData<FillLevel>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic + TOPIC_SUFFIX, 2, true) {}

template <>
void MqttData<FillLevel>::serialize(Topic const& /*topic*/, std::string& payload,
                                    FillLevel const& level) {
    Serializer out(payload);
    out.appendKey("litres");
    out.addValue(level.litres);
    out.finalize();
}

template <>
void MqttData<FillLevel>::deserialize(Topic const& /*topic*/, std::string const& payload,
                                      bool empty, FillLevel& level) {
    if (!empty) {
        Deserializer::extractValue(Deserializer(payload).getMember("litres"), level.litres, "");
    }
}

} // namespace mqtt
