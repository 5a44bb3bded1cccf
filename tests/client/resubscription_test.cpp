// Subscriptions across connections.

#include "client/scripted_session.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"

#include <gmock/gmock.h>

namespace {

using support::Delivery;
using testing::Each;
using testing::ElementsAre;
using testing::Field;

class AReconnection : public ScriptedSession {};

TEST_F(AReconnection, SubscribesEveryTopicOnceInByteOrderAtQosZeroEachTime) {
    for (char const* const topic : {"b", "a/+", "a", "a/#", "b", "B"}) {
        subscribe(topic, first);
    }
    sendAll();
    reconnect();
    sendAll();
    reconnect();
    sendAll();
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 1), ElementsAre("b", "a/+", "a", "a/#", "b", "B"));
    for (int const connection : {2, 3}) {
        EXPECT_THAT(topicsIn(Type::SUBSCRIBE, connection),
                    ElementsAre("B", "a", "a/#", "a/+", "b"));
    }
    EXPECT_THAT(server.received(Type::SUBSCRIBE), Each(Field(&support::MqttPacket::qos, 0)));
}

TEST_F(AReconnection, LeavesOutWhatWasUnsubscribedMeanwhile) {
    subscribe("a", first);
    subscribe("b", first);
    subscribe("c", first);
    subscribe("c", second);
    loseConnection();
    client->unsubscribe("a", &first);
    client->unsubscribe("c", &first);
    ASSERT_TRUE(support::becomesConnected(*client));
    sendAll();
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 2), ElementsAre("b", "c"));
}

TEST_F(AReconnection, SubscribesThenSendsTheQueueAndThenTheStateIsConnected) {
    support::StateRecorder listener([&](conv::ComState state) {
        if (state == conv::ComState::CONNECTED) {
            EXPECT_EQ(client->publish("connected", "", 0, false), Error::SUCCESS);
        }
    });
    subscribe("b", first);
    subscribe("a", first);
    client->registerListener(&listener);
    ASSERT_EQ(client->disconnect(WAIT_SECONDS), Error::SUCCESS);
    for (int const qos : {0, 1, 2}) {
        ASSERT_EQ(client->publish("queued/" + std::to_string(qos), "x", qos, false),
                  Error::SUCCESS);
    }
    ASSERT_EQ(client->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    client->unregisterListener(&listener);
    ASSERT_TRUE(server.waitForPackets(Type::PUBLISH, 4));
    Strings order;
    for (auto const& one : server.received()) {
        if (one.connection == 2 && one.packet.type != Type::PUBREL) {
            order.push_back(one.packet.topic);
        }
    }
    EXPECT_THAT(order, ElementsAre("", "a", "b", "queued/0", "queued/1", "queued/2", "connected"))
        << "CONNECT, which has no topic, comes first";
}

class ASubscriberOfABrokerThatDies : public testing::TestWithParam<bool> {};

TEST_P(ASubscriberOfABrokerThatDies, ReceivesFromItAgainWhenItIsBack) {
    support::Broker broker;
    support::MessageRecorder recorder;
    support::ClientOptions options;
    options.persistent = GetParam();
    auto const client = support::testClient(broker, options);
    ASSERT_EQ(client->subscribe("a/+", &recorder, 8), mqtt::MqttClient::Error::SUCCESS);
    broker.kill();
    ASSERT_TRUE(support::eventually(
        [&] { return client->communicationState() == conv::ComState::CONNECTION_LOST; }));
    ASSERT_EQ(client->subscribe("b", &recorder, 9), mqtt::MqttClient::Error::SUCCESS);
    broker.start();
    ASSERT_TRUE(support::becomesConnected(*client));
    ASSERT_EQ(client->publishWait("reached", "", 1, false, 30), mqtt::MqttClient::Error::SUCCESS);
    support::RawPeer peer(broker);
    peer.publish("a/b", "x");
    peer.publish("b", "y");
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.deliveries(), ElementsAre(Delivery{8, "a/b", "x"}, Delivery{9, "b", "y"}));
    client->release(&recorder);
}

INSTANTIATE_TEST_SUITE_P(WithASession, ASubscriberOfABrokerThatDies, testing::Bool(),
                         [](auto const& session) {
                             return session.param ? "Persistent" : "Clean";
                         });

} // namespace
