#pragma once

// Leaving nothing behind: what is retained stays at the broker until somebody erases it.

#include "console.hpp"
#include "plant.hpp"

#include <mqtt/topic_cleaner.hpp>

#include <chrono>
#include <stdexcept>
#include <string>

/// The cleaner has a connection, and so an identifier, of its own.
inline Uuid const CLEANER_ID(5);

/// Called on the cleaner's timer thread.
class CleaningReport final : public mqtt::TopicCleaner::Listener {
public:
    void onTopicCleaned(mqtt::Topic const& topic) override { say("cleaned " + topic.text()); }
    void onAllTopicsCleaned() override { say("all is cleaned"); }
};

/// Nobody can know how long a broker takes to hand out what it retains: a second is plenty here.
inline void cleanUp(std::string const& host, int port) {
    CleaningReport report;
    mqtt::TopicCleaner cleaner(&report, CLEANER_ID, host, port);
    cleaner.clean(PLANT + "#", std::chrono::seconds(1));
    if (!cleaner.waitAllTasks(std::chrono::seconds(20))) {
        throw std::runtime_error("cleaning takes too long");
    }
}
