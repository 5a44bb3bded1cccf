#pragma once

#include "program.hpp"

#include <mqtt/client.hpp>

#include <string>

namespace bench {

/// The parts of the program that need no broker.
void measureDocuments(Options const& options);
void measureDispatch(Options const& options);
void measurePaths(Options const& options);

/// Hands a message to a client as the broker library does. The base class is private: only this
/// cast may pass.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
inline void receive(mqtt::MqttClient& client, mosquitto_message const& message) {
    ((mosqpp::mosquittopp&)client).on_message(&message);
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
