#pragma once

// What a device publishes about an entity. All of it is retained: the broker sends it to readers
// that subscribe later.

#include "plant.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <string>

/// One entity of the plant: two endpoints, on the levels "identification" and "status" below its
/// topic.
class Entity {
public:
    /// Sets the values and publishes nothing. They need no lock as long as no other thread has
    /// them.
    Entity(mqtt::MqttClient& client, Uuid const& id, std::string const& name)
        : link_{topicOf(id).text()},
          identification_(client, topicOf(id)),
          status_(client, topicOf(id)) {
        identification_.value.uuid = id.to_string();
        identification_.value.manufacturer = "Pumps & Sons";
        identification_.value.name = name;
        status_.value = WORKING;
    }

    void publish() {
        identification_.publish();
        status_.publish();
    }

    void report(conv::ServiceStatus const& status) { status_.publish(status); }

    /// The topic by which others find the entity.
    mqtt::Link const& link() const { return link_; }

private:
    mqtt::Link const link_;
    mqtt::MqttData<conv::Identification> identification_;
    mqtt::MqttData<conv::ServiceStatus> status_;
};
