// Publishing to a broker, with a connection and without.

#include "client/broker_session.hpp"

#include "support/scripted_server.hpp"

#include <optional>
#include <tuple>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::Message;
using support::PacketType;
using testing::ElementsAre;
using Error = MqttClient::Error;
using Payloads = std::vector<std::string>;

Payloads numbers(int count) {
    Payloads result;
    for (int i = 0; i < count; ++i) {
        result.push_back(std::to_string(i));
    }
    return result;
}

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

TEST_F(AClientAtABroker, CallsAQos0PublicationDoneWhenItIsWritten) {
    connect();
    broker_.suspend();
    EXPECT_EQ(client_->publishWait("a", "value", 0, false, WAIT_SECONDS), Error::SUCCESS);
    broker_.resume();
    EXPECT_THAT(receivedPayloads(), ElementsAre("value"));
}

TEST(AWaitForAQos2Publication, EndsWithTheLastPacketOfTheHandshake) {
    support::ScriptedServer server;
    auto const client = mqtt::test::testClient(server.host(), server.port());
    server.hold(PacketType::PUBREL);
    EXPECT_EQ(client->publishWait("a", "value", 2, false, 1), Error::TIMEOUT);
    EXPECT_TRUE(server.waitForPackets(PacketType::PUBREL, 1));
    server.release();
    EXPECT_EQ(client->publishWait("a", "value", 2, false, 30), Error::SUCCESS);
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
    int next = 0;
    auto const publishUpTo = [&, qos = qos](int end) {
        for (; next < end; ++next) {
            EXPECT_EQ(client->publish("a", std::to_string(next), qos, true), Error::SUCCESS);
        }
    };
    // Still in flight when the broker dies, because it stands still before.
    broker.suspend();
    publishUpTo(count);
    broker.kill();
    ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    publishUpTo(2 * count);
    client->pause(); // until the peer has subscribed
    broker.start();
    mqtt::test::RawPeer peer(broker);
    peer.subscribe("#");
    client->resume();
    ASSERT_TRUE(peer.waitForMessages(static_cast<std::size_t>(2 * count)));
    publishUpTo(2 * count + 1);
    ASSERT_TRUE(peer.waitForMessages(static_cast<std::size_t>(2 * count + 1)));
    EXPECT_EQ(peer.payloads(), numbers(2 * count + 1));
    EXPECT_EQ(mqtt::test::retained(broker, "a")->payload, std::to_string(2 * count));
}

} // namespace
