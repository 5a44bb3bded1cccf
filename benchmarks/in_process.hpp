#pragma once

#include "program.hpp"

#include <mqtt/client.hpp>

#include <cstddef>
#include <string>

namespace bench {

/// From a message of the broker library to the call of its subscriber, by number of subscriptions.
void measureDispatch(Options const& options);
/// The ways of a message in and out, beside what one would write by hand.
void measurePaths(Options const& options);

/// Hands a message to a client as the broker library does. The base class is private: only this
/// cast may pass. @return 1, as an action that is timed has to return something
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
inline std::size_t receive(mqtt::MqttClient& client, mosquitto_message const& message) {
    ((mosqpp::mosquittopp&)client).on_message(&message);
    return 1;
}
#pragma GCC diagnostic pop

/// A message as the broker library hands it over, which points to these texts.
inline mosquitto_message messageOf(char* topic, std::string& payload) {
    mosquitto_message message{};
    message.topic = topic;
    message.payload = payload.data();
    message.payloadlen = static_cast<int>(payload.size());
    return message;
}

} // namespace bench
