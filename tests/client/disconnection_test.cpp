#include "mqtt/client.hpp"

#include "flood.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/scripted_server.hpp"
#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::Topic;
using support::Broker;
using support::MessageRecorder;
using support::RawPeer;
using support::StateRecorder;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = MqttClient::Error;

constexpr unsigned PATIENCE = 30; // seconds

TEST(Disconnect, MovesTheClientToDisconnected) {
    StateRecorder states;
    Broker const broker;
    auto const client = support::testClient(broker);
    client->registerListener(&states);
    EXPECT_EQ(client->disconnect(PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client->communicationState(), ComState::DISCONNECTED);
    EXPECT_THAT(states.history(), ElementsAre(ComState::DISCONNECTED));
    EXPECT_EQ(client->disconnect(PATIENCE), Error::NO_CONN) << "a second time";
}

TEST(Disconnect, ComesBehindWhatABrokerThatDoesNotReadHasNotTakenYet) {
    support::ScriptedServer server;
    support::Watched<bool> reading(true);
    server.setHook([&](auto const& packet) {
        if (packet.type == support::PacketType::PUBLISH) {
            reading.waitFor([](bool on) { return on; });
        }
        return support::ScriptedServer::Reaction::ANSWER;
    });
    auto const client = support::testClient(server.host(), server.port());
    reading.change([](bool& on) { on = false; });
    // More than the kernel takes.
    constexpr std::size_t MANY = 64;
    std::string const payload(262'144, 'x');
    for (std::size_t i = 0; i < MANY; ++i) {
        ASSERT_EQ(client->publish("a", payload, 0, false), Error::SUCCESS);
    }
    EXPECT_EQ(client->disconnect(2), Error::TIMEOUT);
    reading.change([](bool& on) { on = true; });
    EXPECT_TRUE(server.waitForPackets(support::PacketType::DISCONNECT, 1));
    EXPECT_EQ(server.count(support::PacketType::PUBLISH), MANY);
    EXPECT_TRUE(support::eventually(
        [&] { return client->communicationState() == ComState::DISCONNECTED; }));
}

TEST(Disconnect, EndsAllReconnecting) {
    Broker broker;
    auto const left = support::testClient(broker);
    auto const stayed = support::testClient(broker);
    StateRecorder states;
    left->registerListener(&states);
    ASSERT_EQ(left->disconnect(PATIENCE), Error::SUCCESS);
    broker.kill();
    ASSERT_TRUE(support::eventually(
        [&] { return stayed->communicationState() == ComState::CONNECTION_LOST; }));
    broker.start();
    // By the time one client is back, the other one would be too.
    ASSERT_TRUE(support::becomesConnected(*stayed));
    EXPECT_THAT(states.history(), ElementsAre(ComState::DISCONNECTED));
    left->unregisterListener(&states);
}

TEST(Disconnect, AllowsAWillAndAnotherConnection) {
    Broker const broker;
    auto const client = support::testClient(broker);
    ASSERT_EQ(client->disconnect(PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client->setWill("will", "gone", 2, false), Error::SUCCESS);
    EXPECT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
}

TEST(Disconnect, WaitsNotAtAllForATimeoutOfZero) {
    StateRecorder states;
    Broker const broker;
    auto const client = support::testClient(broker);
    client->registerListener(&states);
    auto const result = client->disconnect(0);
    EXPECT_TRUE(result == Error::TIMEOUT || result == Error::SUCCESS) << result;
    EXPECT_TRUE(states.waitFor(ComState::DISCONNECTED));
}

TEST(Disconnect, FromInsideASubscriberTakesEffectAfterIt) {
    StateRecorder states;
    std::atomic<int> result{-100};
    MqttClient* client = nullptr;
    MessageRecorder recorder([&](int, Topic const&, std::string const&) {
        result = static_cast<int>(client->disconnect(conv::SecondsDuration::NO_TIMEOUT));
    });
    Broker const broker;
    auto const owned = support::testClient(broker);
    client = owned.get();
    client->registerListener(&states);
    ASSERT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    ASSERT_EQ(client->publish("a", "x", 0, false), Error::SUCCESS);
    EXPECT_TRUE(states.waitFor(ComState::DISCONNECTED));
    EXPECT_EQ(result, static_cast<int>(Error::TIMEOUT));
}

TEST(Disconnect, IsCarriedOutByTheEndOfTheClientAtTheLatest) {
    support::ScriptedServer server;
    auto client = support::testClient(server.host(), server.port());
    client->pause();
    EXPECT_EQ(client->disconnect(0), Error::TIMEOUT);
    client.reset();
    EXPECT_TRUE(server.waitForPackets(support::PacketType::DISCONNECT, 1));
}

TEST(Disconnect, QueuesWhatIsPublishedAfterIt) {
    Broker const broker;
    RawPeer watcher(broker);
    watcher.subscribe("a");
    auto const client = support::testClient(broker);
    client->disconnect(0);
    for (int const qos : {0, 1, 2}) {
        EXPECT_EQ(client->publish("a", "after at " + std::to_string(qos), qos, false),
                  Error::SUCCESS);
    }
    ASSERT_TRUE(support::eventually(
        [&] { return client->communicationState() == ComState::DISCONNECTED; }));
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    ASSERT_TRUE(watcher.waitForMessages(3));
    EXPECT_THAT(watcher.payloads(), ElementsAre("after at 0", "after at 1", "after at 2"));
}

TEST(Disconnect, IsCleanAlsoWhileMessagesPourIn) {
    Broker const broker;
    RawPeer watcher(broker);
    watcher.subscribe("will");
    MessageRecorder recorder;
    StateRecorder states;
    auto const client = support::testClient(broker, {false, false, zym::common::Uuid::NIL});
    client->registerListener(&states);
    ASSERT_EQ(client->setWill("will", "dropped", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->subscribe("flood", &recorder, 0), Error::SUCCESS);
    Flood const flood(broker, {"flood"}, std::string(200, 'x'));
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS) << i;
        recorder.clear();
        ASSERT_TRUE(recorder.waitForCount(20)) << i;
        states.clear();
        ASSERT_EQ(client->disconnect(PATIENCE), Error::SUCCESS) << i;
        ASSERT_THAT(states.history(), ElementsAre(ComState::DISCONNECTED)) << i;
    }
    watcher.publish("will", "end of test", 2, false);
    ASSERT_TRUE(watcher.waitForMessages(1));
    EXPECT_THAT(watcher.payloads(), ElementsAre("end of test"));
    client->unregisterListener(&states);
}

} // namespace
