#pragma once

#include "mqtt/mosquittopp.hpp"
#include "mqtt/test/test_client.hpp"
#include "services/cleaner_recorder.hpp"
#include "support/manual_timer.hpp"
#include "support/stand_in/stand_in.hpp"

#include <gmock/gmock.h>

#include <memory>

/// A cleaner with the stand-in for the broker library. Its timer expires when the test says so.
class ACleaner : public testing::Test {
protected:
    using Cleaner = mqtt::TopicCleaner;
    using milliseconds = std::chrono::milliseconds;
    using Operation = support::StandIn::Operation;
    using steady_clock = std::chrono::steady_clock;

    ACleaner() { manual_timer::reset(); }

    void replace(Cleaner::Listener* listener) {
        cleaner = std::make_unique<Cleaner>(listener, mqtt::test::uniqueId(), "host", 1883);
        standIn = support::StandIn::last();
        manual_timer::reset();
    }

    /// Runs the timer's callback, armed or not.
    static void expire() { manual_timer::expire(); }

    /// Returns when the message has been handled.
    void deliver(std::string const& topic, std::string const& payload) {
        standIn->deliver(topic, payload, 0, true);
        standIn->runInLoop([](auto&) {});
    }

    Strings topics(Operation operation) const {
        Strings topics;
        for (auto const& call : standIn->calls(operation)) {
            // The client publishes below $zym/ to wake its worker.
            if (call.topic.rfind("$zym/", 0) != 0) {
                topics.push_back(call.topic);
            }
        }
        return topics;
    }

    /// Lets the broker answer the unsubscription made last.
    void acknowledgeUnsubscription() {
        auto const mid = standIn->calls(Operation::UNSUBSCRIBE).back().mid;
        standIn->runInLoop([mid](auto& object) { object.on_unsubscribe(mid); });
    }

    CleanerRecorder recorder;
    std::unique_ptr<Cleaner> cleaner =
        std::make_unique<Cleaner>(&recorder, mqtt::test::uniqueId(), "host", 1883);
    std::shared_ptr<support::StandIn> standIn = support::StandIn::last();
};
