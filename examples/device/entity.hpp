#pragma once

// What a device publishes about itself: links to its entities, and the identification and status of
// each. All of it is retained: the broker sends it to readers that subscribe later.

#include "plant.hpp"

#include <mqtt/client.hpp>
#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <string>

/// The mutex of an endpoint guards its value.
template <class T>
void set(mqtt::MqttData<T>& endpoint, T const& value) {
    mqtt::MqttDataBase::Lock const lock(endpoint.mutex());
    endpoint.value = value;
}

/// One entity of the plant: two endpoints, on the levels "identification" and "status" below its
/// topic.
class Entity {
public:
    Entity(mqtt::MqttClient& client, Uuid const& id, std::string const& name)
        : link_{topicOf(id).text()},
          identification_(client, topicOf(id)),
          status_(client, topicOf(id)) {
        conv::Identification self;
        self.uuid = id.to_string();
        self.manufacturer = "Pumps & Sons";
        self.name = name;
        set(identification_, self);
        set(status_, {OPERATING, HEALTHY});
    }

    void publish() {
        identification_.publish();
        status_.publish();
    }

    void report(std::uint8_t operating, std::uint8_t health) {
        set(status_, {operating, health});
        status_.publish();
    }

    /// The topic by which others find the entity.
    mqtt::Link const& link() const { return link_; }

private:
    mqtt::Link const link_;
    mqtt::MqttData<conv::Identification> identification_;
    mqtt::MqttData<conv::ServiceStatus> status_;
};
