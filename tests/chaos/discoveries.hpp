#pragma once

#include "chaos/party.hpp"
#include "chaos/place.hpp"

#include <mqtt/service_discoverer.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <memory>
#include <string>
#include <vector>

namespace chaos {

/// Retains a list of links and what they lead to, anew with every connection.
class Device final : private mqtt::MqttClient::Listener {
public:
    static char const* const TOPIC;
    static constexpr int ENTITIES = 5;

    explicit Device(Place& place);
    ~Device();

private:
    void publish();
    void onComStateChanged(conv::ComState state) override;

    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::MqttDataCollection<mqtt::Link>> links_;
    std::vector<std::unique_ptr<mqtt::MqttData<conv::Identification>>> entities_;
};

/// Finds out what the device has.
class Explorer final : public Party {
public:
    Explorer(Place& place, std::string const& name);
    ~Explorer() override;

    void prove() override;

private:
    void step() override;
    bool explore();

    Place& place_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::ServiceDiscovererMqtt> discoverer_;
};

/// Litters and cleans up, with a cleaner made for it each time.
class Sweeper final : public Party, private mqtt::TopicCleaner::Listener {
public:
    Sweeper(Place& place, std::string const& name);
    ~Sweeper() override;

    void prove() override;

private:
    void step() override;
    void litter();
    void sweep();
    void onTopicCleaned(mqtt::Topic const& topic) override;
    void onAllTopicsCleaned() override;

    Place& place_;
    int const port_;
    std::atomic<int> cleaned_{0};
    std::atomic<int> all_{0};
    std::unique_ptr<mqtt::MqttClient> client_;
};

} // namespace chaos
