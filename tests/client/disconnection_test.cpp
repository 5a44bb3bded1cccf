#include "mqtt/client.hpp"

#include "client/flood.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/scripted_server.hpp"
#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <string>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::Broker;
using testing::ElementsAre;
using Error = MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 30;

TEST(Disconnect, ComesBehindWhatABrokerThatDoesNotReadHasNotTakenYet) {
    support::ScriptedServer server;
    support::Watched<bool> reading(true);
    server.setHook([&](auto const& packet) {
        if (packet.type == support::PacketType::PUBLISH) {
            reading.waitFor(support::isSet);
        }
        return support::ScriptedServer::Reaction::ANSWER;
    });
    auto const client = support::testClient(server.host(), server.port());
    reading.change([](bool& on) { on = false; });
    // More than the kernel's buffers take.
    constexpr std::size_t MESSAGES = 64;
    std::string const payload(262'144, 'x');
    for (std::size_t i = 0; i < MESSAGES; ++i) {
        ASSERT_EQ(client->publish("a", payload, 0, false), Error::SUCCESS);
    }
    EXPECT_EQ(client->disconnect(2), Error::TIMEOUT);
    support::set(reading);
    EXPECT_TRUE(server.waitForPackets(support::PacketType::DISCONNECT, 1));
    EXPECT_EQ(server.count(support::PacketType::PUBLISH), MESSAGES);
    EXPECT_TRUE(support::eventually(
        [&] { return client->communicationState() == ComState::DISCONNECTED; }));
}

TEST(Disconnect, IsCarriedOutByTheEndOfTheClientAtTheLatest) {
    support::ScriptedServer server;
    auto client = support::testClient(server.host(), server.port());
    client->pause();
    EXPECT_EQ(client->disconnect(0), Error::TIMEOUT);
    client.reset();
    EXPECT_TRUE(server.waitForPackets(support::PacketType::DISCONNECT, 1));
}

TEST(Disconnect, IsCleanWhileManyMessagesArrive) {
    Broker const broker;
    support::RawPeer watcher(broker);
    watcher.subscribe("will");
    support::MessageRecorder recorder;
    support::StateRecorder states;
    auto const client = support::testClient(broker, {false, false, zym::common::Uuid::NIL});
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
