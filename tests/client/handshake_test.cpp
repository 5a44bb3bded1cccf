// Connecting, step by step: what a server sees, and what the client makes of its answers.

#include "mqtt/client.hpp"

#include "client/sockets.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/scripted_server.hpp"

#include <gmock/gmock.h>

#include <fcntl.h>

#include <future>
#include <utility>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::PacketType;
using support::ScriptedServer;
using testing::ElementsAre;
using Error = MqttClient::Error;
using Mode = ScriptedServer::Mode;

constexpr unsigned WAIT_SECONDS = 30;

// Members are destroyed in reverse order: the client before its listener and its server.
class AHandshake : public testing::Test {
protected:
    AHandshake() { client.registerListener(&states); }

    ScriptedServer server;
    mqtt::test::StateRecorder states;
    MqttClient client{mqtt::test::uniqueId(), false, "", server.host(), server.port(), false};
};

TEST_F(AHandshake, TakesOneTcpConnectionAndOneConnectPacketEachTime) {
    constexpr int ROUNDS = 300;
    for (int i = 0; i < ROUNDS; ++i) {
        // A failed attempt would be followed by a second connection.
        ASSERT_EQ(client.connect("", -1, WAIT_SECONDS), Error::SUCCESS) << i;
        ASSERT_EQ(client.disconnect(WAIT_SECONDS), Error::SUCCESS) << i;
    }
    EXPECT_TRUE(server.waitForPackets(PacketType::DISCONNECT, ROUNDS));
    EXPECT_EQ(server.tcpConnections(), ROUNDS);
    EXPECT_EQ(server.count(PacketType::CONNECT), static_cast<std::size_t>(ROUNDS));
}

TEST_F(AHandshake, IsTheCallersAloneWhileItWaitsForTcp) {
    server.setMode(Mode::NOT_ACCEPTING);
    auto connecting =
        std::async(std::launch::async, [&] { return client.connect("", -1, WAIT_SECONDS); });
    ASSERT_TRUE(mqtt::test::eventually(
        [&] { return client.communicationState() == ComState::CONNECTING; }));
    server.setMode(Mode::BROKER);
    EXPECT_EQ(connecting.get(), Error::SUCCESS);
    EXPECT_EQ(server.count(PacketType::CONNECT), 1U);
}

TEST_F(AHandshake, ThatIsRefusedGoesFromConnectingToConnectionLost) {
    server.setMode(Mode::REFUSE);
    EXPECT_EQ(client.connect("", -1, 1), Error::TIMEOUT);
    EXPECT_THAT(states.history(), ElementsAre(ComState::CONNECTING, ComState::CONNECTION_LOST));
    server.setMode(Mode::BROKER);
    EXPECT_TRUE(states.waitFor(ComState::CONNECTED)) << "it goes on trying";
}

TEST_F(AHandshake, WithASilentServerGoesOnAfterTheWaitUntilADisconnect) {
    server.setMode(Mode::SILENT);
    for (unsigned const seconds : {0U, 1U}) {
        EXPECT_EQ(client.connect("", -1, seconds), Error::TIMEOUT);
        EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
        EXPECT_EQ(client.disconnect(WAIT_SECONDS), Error::SUCCESS);
        EXPECT_EQ(client.communicationState(), ComState::DISCONNECTED);
    }
    EXPECT_EQ(server.count(PacketType::CONNECT), 2U);
}

TEST_F(AHandshake, BrokenOffByTheServerIsTriedAgain) {
    server.setHook([first = true](auto const&) mutable {
        return std::exchange(first, false) ? ScriptedServer::Reaction::DROP
                                           : ScriptedServer::Reaction::ANSWER;
    });
    EXPECT_EQ(client.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_THAT(states.history(),
                ElementsAre(ComState::CONNECTING, ComState::CONNECTION_LOST, ComState::CONNECTED));
    EXPECT_EQ(server.count(PacketType::CONNECT), 2U);
}

TEST_F(AHandshake, CarriesIdentifierSessionAndKeepAlive) {
    zym::common::Uuid const id(99ULL);
    EXPECT_EQ(MqttClient::clientId(id), id.base64URL());
    for (bool const persistent : {false, true}) {
        MqttClient const other(id, persistent, "", server.host(), server.port(), true);
        auto const packet = server.received(PacketType::CONNECT).back();
        EXPECT_EQ(packet.clientId, id.base64URL());
        EXPECT_EQ(packet.keepAlive, 30);
        EXPECT_EQ(packet.cleanSession, !persistent);
        EXPECT_FALSE(packet.hasWill);
    }
}

TEST_F(AHandshake, LeavesASocketThatNoChildProcessInherits) {
    auto const isKeptFromChildren = [&] {
        auto const sockets = socketsConnectedTo(server.port());
        return sockets.size() == 1 && (::fcntl(sockets[0], F_GETFD) & FD_CLOEXEC) != 0;
    };
    ASSERT_EQ(client.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_TRUE(isKeptFromChildren());
    server.drop();
    ASSERT_TRUE(states.waitForHistory({ComState::CONNECTING, ComState::CONNECTED,
                                       ComState::CONNECTION_LOST, ComState::CONNECTED}));
    EXPECT_TRUE(isKeptFromChildren()) << "after a reconnection";
}

} // namespace
