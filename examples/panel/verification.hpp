#pragma once

// Checks what the broker retains, with the check functions that the library has for the test
// programs of a device.

#include "broker_address.hpp"
#include "console.hpp"
#include "plant.hpp"

#include <mqtt/client.hpp>
#include <mqtt/link.hpp>
#include <mqtt/test_checks.hpp>

#include <future>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// Waits for the first list of links, and checks that it names the plant's entities and no others.
class LinkCheck final : private mqtt::MqttData<std::vector<mqtt::Link>>::Subscriber {
public:
    explicit LinkCheck(mqtt::MqttClient& client) : links_(client, PLANT) {
        links_.subscribe(this, 0);
    }

    void run() {
        first_.get_future().wait();
        if (!mqtt::checkCollectionPublished({TANK_ID, PUMP_ID, VALVE_ID}, links_)) {
            throw std::runtime_error("the links are not those of tank, pump and valve");
        }
        printLine("the links are those of tank, pump and valve");
    }

private:
    void onMqttData(std::vector<mqtt::Link> const& /*links*/, bool empty, int /*id*/) override {
        if (!empty && !std::exchange(arrived_, true)) {
            first_.set_value();
        }
    }

    bool arrived_ = false; // used on the worker thread only
    std::promise<void> first_;
    mqtt::MqttDataCollection<mqtt::Link> links_;
};

/// Counts its checks. A check that fails throws.
class Verification {
public:
    Verification(mqtt::MqttClient& client, BrokerAddress const& broker)
        : client_(client), broker_(broker) {}

    void verifyLinks() {
        LinkCheck(client_).run();
        mqtt::testLinkInCollection(topicOf(TANK_ID).text(), PLANT,
                                   "Check that the tank belongs to the plant", counter_,
                                   broker_.host, broker_.port, broker_.options);
    }

    void verifyNothingRetained() {
        mqtt::testTopicClean(PLANT + "#", counter_, broker_.host, broker_.port, broker_.options);
        printLine("the check functions: " + std::to_string(counter_.started) + " checks, "
                  + std::to_string(counter_.passed) + " passed");
    }

private:
    mqtt::MqttClient& client_;
    BrokerAddress const broker_;
    mqtt::TestCounter counter_;
};
