#pragma once

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

/// A client, not yet connected, and a broker at which a peer receives everything.
class AClientAtABroker : public testing::Test {
protected:
    using Error = mqtt::MqttClient::Error;
    static constexpr unsigned WAIT_SECONDS = 30;

    AClientAtABroker() { peer_.subscribe("#"); }

    std::unique_ptr<mqtt::MqttClient> idleClient() const {
        mqtt::test::ClientOptions options;
        options.connect = false;
        return mqtt::test::testClient(broker_, options);
    }

    void connect() { ASSERT_EQ(client_->connect("", -1, WAIT_SECONDS), Error::SUCCESS); }

    /// What the peer has received when all that this client has published has arrived.
    std::vector<std::string> receivedPayloads() {
        EXPECT_EQ(client_->publishWait("marker", "", 2, false, WAIT_SECONDS), Error::SUCCESS);
        EXPECT_TRUE(peer_.waitFor(
            [](auto const& all) { return !all.empty() && all.back().topic == "marker"; }));
        auto result = peer_.payloads();
        result.pop_back();
        return result;
    }

    mqtt::test::Broker broker_;
    mqtt::test::RawPeer peer_{broker_};
    mqtt::test::MessageRecorder subscriber_;
    mqtt::test::StateRecorder states_;
    std::unique_ptr<mqtt::MqttClient> client_ = idleClient();
};
