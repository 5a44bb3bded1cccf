// Publishing to a broker, with a connection and without, and by a will.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::Message;
using testing::ElementsAre;
using Error = MqttClient::Error;
using Payloads = std::vector<std::string>;

constexpr unsigned WAIT_SECONDS = 30;

/// A client, not yet connected, and a broker at which a peer receives everything.
class AClientAtABroker : public testing::Test {
protected:
    AClientAtABroker() { peer_.subscribe("#"); }

    std::unique_ptr<MqttClient> idleClient() const {
        mqtt::test::ClientOptions options;
        options.connect = false;
        return mqtt::test::testClient(broker_, options);
    }

    void connect() { ASSERT_EQ(client_->connect("", -1, WAIT_SECONDS), Error::SUCCESS); }

    /// What the peer has received when all that this client has published has arrived.
    Payloads receivedPayloads() {
        EXPECT_EQ(client_->publishWait("marker", "", 2, false, WAIT_SECONDS), Error::SUCCESS);
        EXPECT_TRUE(peer_.waitFor(
            [](auto const& all) { return !all.empty() && all.back().topic == "marker"; }));
        auto result = peer_.payloads();
        result.pop_back();
        return result;
    }

    mqtt::test::Broker broker_;
    mqtt::test::RawPeer peer_{broker_};
    mqtt::test::StateRecorder states_;
    std::unique_ptr<MqttClient> client_ = idleClient();
};

class APublishingClientAtEveryQos : public AClientAtABroker,
                                    public testing::WithParamInterface<int> {
protected:
    void publish(std::string const& topic, std::string const& payload, bool retain = false) {
        EXPECT_EQ(client_->publish(topic, payload, GetParam(), retain), Error::SUCCESS);
    }
};

INSTANTIATE_TEST_SUITE_P(Qos, APublishingClientAtEveryQos, testing::Values(0, 1, 2));

TEST_P(APublishingClientAtEveryQos, PublishesOnceAndUnchangedNowOrWithTheNextConnection) {
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte += static_cast<char>(i);
    }
    Payloads const payloads{everyByte, "", std::string(1'000'000, '\0')};
    Payloads expected;
    for (bool const connected : {false, true}) {
        for (auto const& payload : payloads) {
            publish("a/b", payload);
            expected.push_back(payload);
        }
        publish("kept", "old", true);
        publish("kept", connected ? "connected" : "queued", true);
        expected.insert(expected.end(), {"old", connected ? "connected" : "queued"});
        if (!connected) {
            connect();
        }
    }
    EXPECT_TRUE(receivedPayloads() == expected);
    EXPECT_EQ(peer_.messages().front(), (Message{"a/b", everyByte, GetParam(), false}));
    EXPECT_EQ(mqtt::test::retained(broker_, "a/b"), std::nullopt);
    EXPECT_EQ(mqtt::test::retained(broker_, "kept"),
              (Message{"kept", "connected", GetParam(), true}));
}

class APublicationInFlightWhenTheBrokerDies
    : public testing::TestWithParam<std::tuple<int, int, bool>> {};

// 60 are more than the library sends without an acknowledgement.
INSTANTIATE_TEST_SUITE_P(CountQosAndSession, APublicationInFlightWhenTheBrokerDies,
                         testing::Combine(testing::Values(3, 60), testing::Values(1, 2),
                                          testing::Bool()));

TEST_P(APublicationInFlightWhenTheBrokerDies, ArrivesBeforeWhatWasQueuedEachOnce) {
    auto const [count, qos, isPersistent] = GetParam();
    mqtt::test::StateRecorder states;
    mqtt::test::Broker broker;
    mqtt::test::ClientOptions options;
    options.persistent = isPersistent;
    auto const client = mqtt::test::testClient(broker, options);
    client->registerListener(&states);
    Payloads published;
    auto const publishMore = [&, qos = qos](int more) {
        for (int i = 0; i < more; ++i) {
            published.push_back(std::to_string(published.size()));
            EXPECT_EQ(client->publish("a", published.back(), qos, true), Error::SUCCESS);
        }
    };
    // Still in flight when the broker dies, because it stands still before.
    broker.suspend();
    publishMore(count);
    broker.kill();
    ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    publishMore(count);
    client->pause(); // until the peer has subscribed
    broker.start();
    mqtt::test::RawPeer peer(broker);
    peer.subscribe("#");
    client->resume();
    ASSERT_TRUE(peer.waitForMessages(published.size()));
    publishMore(1);
    ASSERT_TRUE(peer.waitForMessages(published.size()));
    EXPECT_EQ(peer.payloads(), published);
    EXPECT_EQ(mqtt::test::retained(broker, "a")->payload, published.back());
}

class AWill : public AClientAtABroker {};

TEST_F(AWill, IsPublishedWhenTheClientEndsWithoutADisconnect) {
    std::string const payload("with \0 byte", 11);
    ASSERT_EQ(client_->setWill("will", "replaced", 2, true), Error::SUCCESS);
    ASSERT_EQ(client_->setWill("will", payload, 2, true), Error::SUCCESS);
    ASSERT_EQ(client_->setWill("", "refused", 2, false), Error::INVALID_PARAMETER);
    connect();
    client_.reset();
    ASSERT_TRUE(peer_.waitForMessages(1));
    EXPECT_THAT(peer_.messages(), ElementsAre(Message{"will", payload, 2, false}));
    EXPECT_EQ(mqtt::test::retained(broker_, "will"), (Message{"will", payload, 2, true}));
}

TEST_F(AWill, CanBeChangedWhileDisconnectedOnly) {
    auto const expectRefusal = [&] {
        EXPECT_EQ(client_->setWill("will", "other", 2, false), Error::CONNECTION_PENDING);
        EXPECT_EQ(client_->clearWill(), Error::CONNECTION_PENDING);
    };
    client_->registerListener(&states_);
    connect();
    expectRefusal();
    broker_.kill();
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    expectRefusal();
    client_ = idleClient();
    ASSERT_EQ(client_->connect("", -1, WAIT_SECONDS), Error::ERRNO);
    ASSERT_EQ(client_->communicationState(), ComState::CONNECTING);
    expectRefusal();
}

} // namespace
