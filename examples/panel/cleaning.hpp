#pragma once

// Erases the retained messages, which the broker otherwise keeps.

#include "broker_address.hpp"
#include "console.hpp"
#include "plant.hpp"

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

/// A broker does not report that it has sent all retained messages: the cleaner waits for them for
/// one second, which is enough here.
inline void cleanUp(BrokerAddress const& broker) {
    CleaningPrinter report;
    mqtt::TopicCleaner cleaner(&report, CLEANER_ID, broker.host, broker.port, broker.options);
    cleaner.clean(PLANT + "#", std::chrono::seconds(1));
    if (!cleaner.waitAllTasks(std::chrono::seconds(20))) {
        throw std::runtime_error("cleaning takes too long");
    }
}
