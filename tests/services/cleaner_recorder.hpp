#pragma once

#include "support/watched.hpp"

#include <mqtt/topic_cleaner.hpp>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using Strings = std::vector<std::string>;

/// Longer than any test takes.
constexpr std::chrono::milliseconds LONG_DURATION{3600000};

/// Recorded for onAllTopicsCleaned.
inline std::string const ALL = "all";

/// A listener that keeps its calls: the topics, and `ALL`. Declare it before the cleaner.
class CleanerRecorder : public mqtt::TopicCleaner::Listener {
public:
    using Hook = std::function<void(std::string const&)>;

    /// @param hook called within every call, after that was recorded; it may destroy the recorder
    explicit CleanerRecorder(Hook hook = {}) : hook_(std::move(hook)) {}
    virtual ~CleanerRecorder() = default;

    Strings calls() const { return calls_.copy(); }
    bool waitForCount(std::size_t count) const {
        return calls_.waitFor([&](auto const& calls) { return calls.size() >= count; });
    }
    void setHook(Hook hook) { hook_ = std::move(hook); }

    void onTopicCleaned(mqtt::Topic const& topic) override { record(topic.text()); }
    void onAllTopicsCleaned() override { record(ALL); }

private:
    void record(std::string const& what) {
        auto const hook = hook_;
        calls_.change([&](auto& calls) { calls.push_back(what); });
        if (hook) {
            hook(what);
        }
    }

    support::Watched<Strings> calls_;
    Hook hook_;
};
