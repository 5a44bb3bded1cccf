#pragma once

#include "chaos/party.hpp"
#include "chaos/place.hpp"

#include <mqtt/client.hpp>

#include <string>

namespace chaos {

/// Makes a client, lets it do a bit of everything, and destroys it wherever it is.
class Visitors final : public Party, private mqtt::MqttClient::Subscriber {
public:
    /// @param asked where requests are answered
    Visitors(Place& place, std::string const& name, std::string asked);
    ~Visitors() override { end(); }

private:
    void step() override;
    void visit(mqtt::MqttClient& client);
    void ask(mqtt::MqttClient& client);
    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override;

    Place& place_;
    std::string const asked_;
    int const port_;
};

} // namespace chaos
