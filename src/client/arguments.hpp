#pragma once

#include "mqtt/client.hpp"

#include <cstddef>

namespace mqtt {

/// The longest payload that MQTT can carry, in bytes.
constexpr std::size_t MAX_PAYLOAD = 268'435'455;

/// What the broker library says to a publication on this topic, in its own order of checks.
/// For use without a connection, when the library itself must not be asked.
MqttClient::Error checkPublication(Topic const& topic, std::size_t payloadSize, int qos);

/// The same for a subscription; an empty topic, which the library lets through, is refused: the
/// broker would drop the connection over it, time and again.
MqttClient::Error checkSubscription(Topic const& topic);

/// What only we check, also with a connection: the library takes the topic for shorter than it
/// is when there is a zero byte in it, and a payload size for negative.
MqttClient::Error checkSizes(Topic const& topic, std::size_t payloadSize);

} // namespace mqtt
