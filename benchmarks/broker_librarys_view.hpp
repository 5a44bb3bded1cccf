#pragma once

#include <mqtt/client.hpp>

namespace bench {

// The base class is private: only this cast may pass, and it is the broker library's way in.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
inline mosqpp::mosquittopp& brokerLibrarysView(mqtt::MqttClient& client) {
    return (mosqpp::mosquittopp&)client;
}
#pragma GCC diagnostic pop

} // namespace bench
