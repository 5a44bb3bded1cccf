#pragma once

#include "mqtt/client.hpp"

#include <cstddef>
#include <string>

namespace mqtt {

/// The largest content of one MQTT packet, in bytes. A publication has its payload, its topic, two
/// bytes for the topic's length and, above QoS 0, two for an identifier.
constexpr std::size_t MAX_PACKET = 268'435'455;
/// The longest payload of a will, in bytes: its length has two bytes.
constexpr std::size_t MAX_WILL_PAYLOAD = 65'535;

bool isUtf8(std::string const& text);

/// What the broker library returns for a publication on this topic; its order of checks is kept.
/// For use without a connection, when the library itself must not be called.
MqttClient::Error checkPublication(Topic const& topic, std::size_t payloadSize, int qos);

/// The same for a subscription. An empty topic, which the library accepts, is refused: the broker
/// would drop every connection because of it.
MqttClient::Error checkSubscription(Topic const& topic);

/// Checks that the library does not make, so they are made with a connection too. The library reads
/// a topic only to its first zero byte, and treats a very large payload size as negative. Above QoS
/// 0 it would keep a publication that is too large for its packet, and try to send it with every
/// connection.
MqttClient::Error checkSizes(Topic const& topic, std::size_t payloadSize, int qos);

} // namespace mqtt
