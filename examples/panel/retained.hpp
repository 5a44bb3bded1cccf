#pragma once

// What the broker retains of the plant: checks it, with the check functions that the library has
// for the test programs of a device, and erases it.

#include "plant.hpp"
#include "program.hpp"

#include <mqtt/client.hpp>
#include <mqtt/link.hpp>
#include <mqtt/test_checks.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <chrono>
#include <stdexcept>
#include <string>

/// The cleaner has its own connection, and so its own identifier.
inline Uuid const CLEANER_ID(5);

/// Called on the cleaner's timer thread.
class CleaningPrinter final : public mqtt::TopicCleaner::Listener {
public:
    void onTopicCleaned(mqtt::Topic const& topic) override { printLine("cleaned " + topic.text()); }
    void onAllTopicsCleaned() override { printLine("all is cleaned"); }
};

/// Counts its checks. A check that fails throws.
class RetainedValues {
public:
    explicit RetainedValues(BrokerAddress const& broker) : broker_(broker) {}

    void verifyLinks(mqtt::MqttClient& client) {
        mqtt::MqttDataCollection<mqtt::Link> links(client, PLANT);
        links.waitForNext(links.value, std::chrono::seconds(5));
        if (!mqtt::checkCollectionPublished({TANK_ID, PUMP_ID, VALVE_ID}, links)) {
            throw std::runtime_error("the links are not those of tank, pump and valve");
        }
        printLine("the links are those of tank, pump and valve");
        mqtt::testLinkInCollection(topicOf(TANK_ID).text(), PLANT,
                                   "Check that the tank belongs to the plant", counter_,
                                   broker_.host, broker_.port, broker_.options);
    }

    /// A broker does not report that it has sent all retained messages: the cleaner waits for them
    /// for one second, which is enough here.
    void erase() const {
        CleaningPrinter report;
        mqtt::TopicCleaner cleaner(&report, CLEANER_ID, broker_.host, broker_.port,
                                   broker_.options);
        cleaner.clean(PLANT + "#", std::chrono::seconds(1));
        if (!cleaner.waitAllTasks(std::chrono::seconds(20))) {
            throw std::runtime_error("cleaning takes too long");
        }
    }

    void verifyErased() {
        mqtt::testTopicClean(PLANT + "#", counter_, broker_.host, broker_.port, broker_.options);
        printLine("the check functions: " + std::to_string(counter_.started) + " checks, "
                  + std::to_string(counter_.passed) + " passed");
    }

private:
    BrokerAddress const broker_;
    mqtt::TestCounter counter_;
};
