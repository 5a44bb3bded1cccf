#include "client/scripted_session.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"

#include <gmock/gmock.h>

#include <algorithm>

namespace {

using support::Delivery;
using support::MessageRecorder;
using support::ScriptedServer;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

class AReconnection : public ScriptedSession {};

TEST_F(AReconnection, SubscribesEveryTopicOnceInByteOrderAtQosZero) {
    for (char const* const topic : {"b", "a/+", "a", "a/#", "b", "B"}) {
        subscribe(topic, first);
    }
    sendAll();
    reconnect();
    sendAll();
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 1), ElementsAre("b", "a/+", "a", "a/#", "b", "B"));
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 2), ElementsAre("B", "a", "a/#", "a/+", "b"));
    EXPECT_THAT(server.received(Type::SUBSCRIBE), Each(Field(&support::MqttPacket::qos, 0)));
}

TEST_F(AReconnection, SubscribesBeforeTheStateBecomesConnected) {
    subscribe("a", first);
    subscribe("b", first);
    support::StateRecorder listener([&](conv::ComState state) {
        if (state == conv::ComState::CONNECTED) {
            EXPECT_EQ(client->publish("connected", "", 0, false), Error::SUCCESS);
        }
    });
    client->registerListener(&listener);
    reconnect();
    ASSERT_TRUE(server.waitForPackets(Type::PUBLISH, 1));
    Strings order;
    for (auto const& one : server.received()) {
        if (one.connection == 2) {
            order.push_back(one.packet.topic);
        }
    }
    EXPECT_THAT(order, ElementsAre("", "a", "b", "connected")) << "CONNECT first";
    client->unregisterListener(&listener);
}

TEST_F(AReconnection, SubscribesBeforeQueuedPublicationsAreSent) {
    subscribe("b", first);
    subscribe("a", first);
    ASSERT_EQ(client->disconnect(30), Error::SUCCESS);
    ASSERT_EQ(client->publish("queued", "x", 1, false), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, 30), Error::SUCCESS);
    ASSERT_TRUE(server.waitForPackets(Type::PUBLISH, 1));
    Strings order;
    for (auto const& one : server.received()) {
        if (one.connection == 2) {
            order.push_back(one.packet.topic);
        }
    }
    EXPECT_THAT(order, ElementsAre("", "a", "b", "queued")) << "CONNECT first";
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

TEST_F(AReconnection, KeepsSubscribersTheirOrderAndTheirTags) {
    subscribe("a", first, 1);
    subscribe("a", second, 2);
    subscribe("a", first, 3);
    reconnect();
    send("a", "x");
    receiveAll();
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{1, "a", "x"}, Delivery{3, "a", "x"}));
    EXPECT_THAT(second.deliveries(), ElementsAre(Delivery{2, "a", "x"}));
}

TEST_F(AReconnection, SubscribesEveryTimeItHappens) {
    subscribe("a", first);
    reconnect();
    reconnect();
    sendAll();
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 3), ElementsAre("a"));
}

TEST_F(AReconnection, ThatIsRefusedSubscribesNothing) {
    subscribe("a", first);
    ASSERT_EQ(client->disconnect(30), Error::SUCCESS);
    server.refuseWith(5);
    client->connect("", -1, 0);
    ASSERT_TRUE(server.waitForPackets(Type::CONNECT, 2));
    server.setMode(ScriptedServer::Mode::BROKER);
    ASSERT_TRUE(support::becomesConnected(*client));
    sendAll();
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 2), IsEmpty());
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 3), ElementsAre("a"));
}

/// The broker has not consented yet.
class AConnectionUnderWay : public ScriptedSession {
protected:
    void SetUp() override {
        subscribe("known", first);
        ASSERT_EQ(client->disconnect(30), Error::SUCCESS);
        server.hold(Type::CONNECT);
        ASSERT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
        ASSERT_TRUE(server.waitForPackets(Type::CONNECT, 2));
    }

    /// What the server was sent over the connection after CONNECT.
    std::vector<Type> sentAfterConnect() {
        server.release();
        EXPECT_TRUE(support::becomesConnected(*client));
        sendAll();
        std::vector<Type> result;
        for (auto const& one : server.received()) {
            if (one.connection == 2 && one.packet.type != Type::CONNECT) {
                result.push_back(one.packet.type);
            }
        }
        return result;
    }
};

TEST_F(AConnectionUnderWay, TakesASubscriptionAndMakesItOnceWhenItStands) {
    ASSERT_EQ(client->subscribe("new", &first, 0), Error::SUCCESS);
    EXPECT_THAT(sentAfterConnect(), ElementsAre(Type::SUBSCRIBE, Type::SUBSCRIBE, Type::PUBLISH));
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 2), ElementsAre("known", "new"));
}

TEST_F(AConnectionUnderWay, IsNotToldOfAnUnsubscription) {
    EXPECT_EQ(client->unsubscribe("known", &first), Error::NO_CONN);
    EXPECT_THAT(sentAfterConnect(), ElementsAre(Type::PUBLISH));
}

TEST_F(AConnectionUnderWay, IsNotToldOfARelease) {
    client->release(&first);
    EXPECT_THAT(sentAfterConnect(), ElementsAre(Type::PUBLISH));
}

TEST_F(AConnectionUnderWay, RefusesWhatTheBrokerWouldNotBear) {
    EXPECT_EQ(client->subscribe("", &first, 0), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->subscribe("/", &first, 0), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->subscribe("a/#/b", &first, 0), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->subscribe("a/\xFF", &first, 0), static_cast<Error>(18));
    EXPECT_THAT(sentAfterConnect(), ElementsAre(Type::SUBSCRIBE, Type::PUBLISH));
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 2), ElementsAre("known"));
}

class ASubscriberOfABrokerThatDies : public testing::TestWithParam<bool> {};

TEST_P(ASubscriberOfABrokerThatDies, HearsOfItAgainWhenItIsBack) {
    support::Broker broker;
    MessageRecorder recorder;
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
