#pragma once

#include "support/watched.hpp"

#include <mqtt/topic_cleaner.hpp>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using Strings = std::vector<std::string>;

/// Long enough to see that something does not happen; it never makes a right cleaner fail.
constexpr std::chrono::milliseconds A_WHILE{300};
/// Longer than any test takes.
constexpr std::chrono::milliseconds AN_HOUR{3600000};

/// What a listener is told when no request is left.
inline std::string const ALL = "all";

/// A listener that keeps what it is told: the topics, and `ALL`. Declare it before the cleaner.
class CleanerRecorder : public mqtt::TopicCleaner::Listener {
public:
    using Hook = std::function<void(std::string const&)>;

    /// @param hook called within every call, after it was kept; only locals of it are touched
    ///        afterwards
    explicit CleanerRecorder(Hook hook = {}) : hook_(std::move(hook)) {}
    virtual ~CleanerRecorder() = default;

    Strings told() const { return told_.copy(); }
    bool waitForCount(std::size_t count) const {
        return told_.waitFor([&](auto const& told) { return told.size() >= count; });
    }
    void setHook(Hook hook) { hook_ = std::move(hook); }

    void onTopicCleaned(mqtt::Topic const& topic) override { tell(topic.text()); }
    void onAllTopicsCleaned() override { tell(ALL); }

private:
    void tell(std::string const& what) {
        auto const hook = hook_;
        told_.change([&](auto& told) { told.push_back(what); });
        if (hook) {
            hook(what);
        }
    }

    support::Watched<Strings> told_;
    Hook hook_;
};
