#pragma once

#include "mqtt/test/recorder.hpp"

#include <mqtt/topic_cleaner.hpp>

#include <string>
#include <vector>

using Strings = std::vector<std::string>;

/// Longer than any test takes.
constexpr std::chrono::milliseconds LONG_DURATION{3600000};

/// Recorded for onAllTopicsCleaned.
inline std::string const ALL = "all";

/// A listener that keeps its calls: the topics, and `ALL`.
class CleanerRecorder : public mqtt::TopicCleaner::Listener,
                        public mqtt::test::CallRecorder<std::string> {
public:
    void onTopicCleaned(mqtt::Topic const& topic) override { record(topic.text()); }
    void onAllTopicsCleaned() override { record(ALL); }
};
