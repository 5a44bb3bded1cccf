#pragma once

#include "mqtt/mosquittopp.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/stand_in/stand_in.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A client, not yet connected, over a stand-in for the broker library.
class AClientOnAScript : public testing::Test {
protected:
    static constexpr unsigned WAIT_SECONDS = 30;

    AClientOnAScript() { client_->registerListener(&states_); }

    static std::unique_ptr<mqtt::MqttClient> idleClient() {
        mqtt::test::ClientOptions options;
        options.connect = false;
        return mqtt::test::testClient("host", 1883, options);
    }

    void connect() {
        ASSERT_EQ(client_->connect("", -1, WAIT_SECONDS), mqtt::MqttClient::Error::SUCCESS);
    }

    /// Begins to connect; the broker does not answer.
    void beginToConnect() {
        script_->setConnack(std::nullopt);
        ASSERT_EQ(client_->connect("", -1, 0), mqtt::MqttClient::Error::TIMEOUT);
    }

    std::ptrdiff_t connections() const {
        auto const states = states_.history();
        return std::count(states.begin(), states.end(), conv::ComState::CONNECTED);
    }

    void reconnect() {
        auto const before = connections();
        script_->loseConnection();
        ASSERT_TRUE(mqtt::test::eventually([&] { return connections() > before; }));
    }

    /// Returns when the network step under way and what it has led to are over.
    void letTheStepEnd() {
        script_->runInLoop([](auto&) {});
        script_->runInLoop([](auto&) {});
    }

    void queue(std::vector<std::string> const& payloads, int qos) {
        for (auto const& payload : payloads) {
            ASSERT_EQ(client_->publish("a", payload, qos, false), mqtt::MqttClient::Error::SUCCESS);
        }
    }

    /// The payloads handed to the library, in order.
    std::vector<std::string> published() const {
        std::vector<std::string> result;
        for (auto const& call : script_->calls(support::StandIn::Operation::PUBLISH)) {
            result.push_back(call.payload);
        }
        return result;
    }

    /// The topics of the calls of an operation, in order.
    std::vector<std::string> topics(support::StandIn::Operation operation) const {
        std::vector<std::string> result;
        for (auto const& call : script_->calls(operation)) {
            result.push_back(call.topic);
        }
        return result;
    }

    mqtt::test::StateRecorder states_;
    mqtt::test::MessageRecorder subscriber_;
    std::unique_ptr<mqtt::MqttClient> client_ = idleClient();
    std::shared_ptr<support::StandIn> script_ = support::StandIn::last();
};
