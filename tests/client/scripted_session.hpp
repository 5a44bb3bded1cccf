#pragma once

#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/scripted_server.hpp"

#include <mqtt/client.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

/// A client connected to a server that answers what the test wants, and three subscribers.
class ScriptedSession : public ::testing::Test {
protected:
    using Client = mqtt::MqttClient;
    using Error = mqtt::MqttClient::Error;
    using Strings = std::vector<std::string>;
    using Type = support::PacketType;
    static constexpr unsigned WAIT_SECONDS = 30;

    void subscribe(std::string const& topic, Client::Subscriber& subscriber, int tag = 0) {
        ASSERT_EQ(client->subscribe(topic, &subscriber, tag), Error::SUCCESS);
    }

    void send(std::string const& topic, std::string const& payload) {
        ASSERT_TRUE(server.publish(topic, payload));
    }

    /// Returns when all that the server sent so far has been dispatched.
    void receiveAll() {
        std::string const name = "marker/" + std::to_string(++markers_);
        subscribe(name, marker_);
        send(name, name);
        ASSERT_TRUE(marker_.waitForPayload(name));
        client->unsubscribe(name, &marker_);
    }

    /// Returns when all that the client sent so far is with the server.
    void sendAll() {
        ASSERT_EQ(client->publishWait("sent", "", 1, false, WAIT_SECONDS), Error::SUCCESS);
    }

    /// The topics in packets of this type over one connection, in the order they came.
    Strings topicsIn(Type type, int connection) const {
        Strings result;
        for (auto const& one : server.received()) {
            if (one.packet.type == type && one.connection == connection) {
                result.push_back(one.packet.topic);
            }
        }
        return result;
    }

    /// Ends the connection; returns when the client has noticed.
    void loseConnection() {
        server.drop();
        ASSERT_TRUE(mqtt::test::eventually(
            [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
    }

    /// Ends the connection; returns when the client is connected again.
    void reconnect() {
        loseConnection();
        ASSERT_TRUE(mqtt::test::becomesConnected(*client));
    }

    support::ScriptedServer server;
    mqtt::test::MessageRecorder first, second, third;

private:
    mqtt::test::MessageRecorder marker_;
    int markers_ = 0;

protected:
    std::unique_ptr<Client> client = mqtt::test::testClient(server.host(), server.port());
};
