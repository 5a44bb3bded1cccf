#pragma once

#include "mqtt/client.hpp"

#include <cstddef>

namespace mqtt {

/// What MQTT can carry in one packet, in bytes: of a publication the payload, the topic with two
/// bytes for its length and, above QoS 0, two for an identifier.
constexpr std::size_t MAX_PACKET = 268'435'455;
/// The longest payload of a will, in bytes: two are there for its length.
constexpr std::size_t MAX_WILL_PAYLOAD = 65'535;

/// What the broker library says to a publication on this topic, in its own order of checks.
/// For use without a connection, when the library itself must not be asked.
MqttClient::Error checkPublication(Topic const& topic, std::size_t payloadSize, int qos);

/// The same for a subscription; an empty topic, which the library lets through, is refused: the
/// broker would drop the connection over it, time and again.
MqttClient::Error checkSubscription(Topic const& topic);

/// What only we check, also with a connection: the library takes the topic for shorter than it
/// is when there is a zero byte in it, and a payload size for negative. One that is too large for
/// its packet it would keep above QoS 0, and try to send with every connection.
MqttClient::Error checkSizes(Topic const& topic, std::size_t payloadSize, int qos);

} // namespace mqtt
