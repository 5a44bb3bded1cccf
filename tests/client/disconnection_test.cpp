#include "mqtt/client.hpp"

#include "client/flood.hpp"
#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "mqtt/test/watched.hpp"
#include "support/scripted_server.hpp"

#include <gmock/gmock.h>

#include <string>
#include <utility>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::Broker;
using support::PacketType;
using testing::ElementsAre;
using Error = MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 30;
/// The keep-alive ends a connection after 30 seconds in any case.
constexpr std::chrono::duration<unsigned> BEFORE_KEEP_ALIVE{20};

TEST(Disconnect, ComesBehindWhatABrokerThatDoesNotReadHasNotTakenYet) {
    mqtt::test::Watched<bool> reading(true);
    mqtt::test::Watched<bool> mayClose(false);
    support::ScriptedServer server;
    // It sends nothing, and keeps the connection behind a DISCONNECT packet until it may close it.
    server.setHook([&](auto const& packet) {
        using Reaction = support::ScriptedServer::Reaction;
        if (packet.type == PacketType::PUBLISH) {
            reading.waitFor(mqtt::test::isSet);
        } else if (packet.type == PacketType::DISCONNECT) {
            mayClose.waitFor(mqtt::test::isSet, 2 * mqtt::test::DEADLINE);
        }
        return packet.type == PacketType::CONNECT ? Reaction::ANSWER : Reaction::IGNORE;
    });
    auto const client = mqtt::test::testClient(server.host(), server.port());
    reading.change([](bool& on) { on = false; });
    // More than the kernel's buffers take.
    constexpr std::size_t MESSAGES = 64;
    std::string const payload(262'144, 'x');
    for (std::size_t i = 0; i < MESSAGES; ++i) {
        ASSERT_EQ(client->publish("a", payload, 0, false), Error::SUCCESS);
    }
    EXPECT_EQ(client->disconnect(2), Error::TIMEOUT);
    mqtt::test::set(reading);
    EXPECT_TRUE(mqtt::test::eventually(
        [&] { return client->communicationState() == ComState::DISCONNECTED; }, BEFORE_KEEP_ALIVE));
    mqtt::test::set(mayClose);
    EXPECT_TRUE(server.waitForPackets(PacketType::DISCONNECT, 1));
    EXPECT_EQ(server.count(PacketType::PUBLISH), MESSAGES);
}

TEST(Disconnect, IsCarriedOutByTheEndOfTheClientAtTheLatest) {
    support::ScriptedServer server;
    auto client = mqtt::test::testClient(server.host(), server.port());
    client->pause();
    EXPECT_EQ(client->disconnect(0), Error::TIMEOUT);
    client.reset();
    EXPECT_TRUE(server.waitForPackets(PacketType::DISCONNECT, 1));
}

TEST(Disconnect, IsCleanInASubscriberThoughMoreMessagesHaveArrived) {
    support::ScriptedServer server;
    auto const client = mqtt::test::testClient(server.host(), server.port());
    mqtt::test::Watched<bool> mayGoOn;
    bool hasLeft = false;
    mqtt::test::MessageRecorder leaver([&](int, auto&&, std::string const& payload) {
        if (payload == "first") {
            mayGoOn.waitFor(mqtt::test::isSet);
        } else if (!std::exchange(hasLeft, true)) {
            EXPECT_EQ(client->disconnect(WAIT_SECONDS), Error::TIMEOUT) << "on the worker";
        }
    });
    ASSERT_EQ(client->subscribe("a", &leaver, 0), Error::SUCCESS);
    ASSERT_TRUE(server.publish("a", "first"));
    for (int i = 0; i < 20; ++i) { // the library may read them all at once
        ASSERT_TRUE(server.publish("a", "more"));
    }
    mqtt::test::set(mayGoOn);
    EXPECT_TRUE(mqtt::test::eventually(
        [&] { return client->communicationState() == ComState::DISCONNECTED; }));
    EXPECT_TRUE(server.waitForPackets(PacketType::DISCONNECT, 1));
    EXPECT_EQ(client->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_EQ(server.tcpConnections(), 2);
    client->release(&leaver);
}

TEST(Disconnect, IsCleanWhileManyMessagesArrive) {
    Broker const broker;
    mqtt::test::RawPeer watcher(broker);
    watcher.subscribe("will");
    mqtt::test::MessageRecorder recorder;
    mqtt::test::StateRecorder states;
    auto const client = mqtt::test::testClient(broker, {false, false, zym::common::Uuid::NIL});
    client->registerListener(&states);
    ASSERT_EQ(client->setWill("will", "dropped", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->subscribe("flood", &recorder, 0), Error::SUCCESS);
    Flood const flood(broker, {{"flood", std::string(200, 'x')}});
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(client->connect("", -1, WAIT_SECONDS), Error::SUCCESS) << i;
        recorder.clear();
        ASSERT_TRUE(recorder.waitForCount(20)) << i;
        states.clear();
        ASSERT_EQ(client->disconnect(WAIT_SECONDS), Error::SUCCESS) << i;
        ASSERT_THAT(states.history(), ElementsAre(ComState::DISCONNECTED)) << i;
    }
    watcher.publish("will", "end of test", 2, false);
    ASSERT_TRUE(watcher.waitForMessages(1));
    EXPECT_THAT(watcher.payloads(), ElementsAre("end of test"));
}

} // namespace
