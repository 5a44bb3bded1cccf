#pragma once

#include "services/cleaner_recorder.hpp"
#include "support/manual_timer.hpp"
#include "support/stand_in/stand_in.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>
#include <mosquittopp.h>

#include <memory>

/// A cleaner whose timer expires when the test says so, over a script in place of the broker
/// library.
class ACleaner : public testing::Test {
protected:
    using Cleaner = mqtt::TopicCleaner;
    using milliseconds = std::chrono::milliseconds;
    using Operation = support::StandIn::Operation;
    using steady_clock = std::chrono::steady_clock;

    ACleaner() { manual_timer::reset(); }

    /// One with this listener, in place of the one there was.
    void replace(Cleaner::Listener* listener) {
        cleaner = std::make_unique<Cleaner>(listener, support::uniqueId(), "host", 1883);
        script = support::StandIn::last();
        manual_timer::reset();
    }

    /// The timer's callback runs, whatever was armed.
    static void look() { manual_timer::expire(); }

    /// Returns when it has been dealt with.
    void deliver(std::string const& topic, std::string const& payload) {
        script->deliver(topic, payload, 0, true);
        script->runInLoop([](auto&) {});
    }

    Strings topics(Operation operation) const {
        Strings topics;
        for (auto const& call : script->calls(operation)) {
            // The client's own, to wake its worker.
            if (call.topic.rfind("$zym/", 0) != 0) {
                topics.push_back(call.topic);
            }
        }
        return topics;
    }

    /// Lets the broker answer the unsubscription made last.
    void acknowledgeUnsubscription() {
        auto const mid = script->calls(Operation::UNSUBSCRIBE).back().mid;
        script->runInLoop([mid](auto& object) { object.on_unsubscribe(mid); });
    }

    CleanerRecorder recorder;
    std::unique_ptr<Cleaner> cleaner =
        std::make_unique<Cleaner>(&recorder, support::uniqueId(), "host", 1883);
    std::shared_ptr<support::StandIn> script = support::StandIn::last();
};
