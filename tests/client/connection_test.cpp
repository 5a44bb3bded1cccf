// Connecting, at a broker and at a server that shows it step by step.

#include "mqtt/client.hpp"

#include "client/sockets.hpp"
#include "mqtt/test/broker.hpp"
#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/scripted_server.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <future>
#include <sstream>

#include <fcntl.h>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::Broker;
using support::PacketType;
using support::ScriptedServer;
using Error = MqttClient::Error;
using Mode = ScriptedServer::Mode;

constexpr unsigned WAIT_SECONDS = 30;

TEST(TheConstants, AreThirtyAndFiveSeconds) {
    EXPECT_EQ(MqttClient::HEART_BEAT_RATE.toInt32(), 30);
    EXPECT_EQ(MqttClient::COMMUNICATION_DELAY.toInt32(), 5);
}

// Members are destroyed in reverse order: the client before its listener and its broker.
class AClient : public testing::Test {
protected:
    AClient() { client_.registerListener(&states_); }

    mqtt::test::StateRecorder states_;
    Broker broker_;
    MqttClient client_{mqtt::test::uniqueId(),     false, "", broker_.host(), broker_.port(), false,
                       broker_.connectionOptions()};
};

TEST_F(AClient, IsConnectedByACallAndByNoSecondOne) {
    EXPECT_EQ(client_.communicationState(), ComState::DISCONNECTED);
    EXPECT_EQ(client_.disconnect(WAIT_SECONDS), Error::NO_CONN);
    EXPECT_EQ(client_.connect("", -1, conv::SecondsDuration::NO_TIMEOUT), Error::SUCCESS);
    EXPECT_EQ(client_.communicationState(), ComState::CONNECTED);
    EXPECT_EQ(client_.connect("", 1, WAIT_SECONDS), Error::CONNECTION_PENDING);
    EXPECT_EQ(client_.publishWait("a", "x", 1, false, WAIT_SECONDS), Error::SUCCESS);
    broker_.kill();
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    EXPECT_EQ(client_.connect("", -1, WAIT_SECONDS), Error::CONNECTION_PENDING);
    EXPECT_EQ(client_.communicationState(), ComState::CONNECTION_LOST);
}

TEST_F(AClient, RefusesAPortOutOfRangeAndChangesNothing) {
    EXPECT_EQ(client_.connect("", 65536, WAIT_SECONDS), Error::INVALID_PARAMETER);
    EXPECT_EQ(client_.connect("", 65536 + broker_.port(), WAIT_SECONDS), Error::INVALID_PARAMETER);
    EXPECT_THAT(states_.history(), testing::IsEmpty());
    EXPECT_EQ(client_.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    MqttClient madeWithABadPort(mqtt::test::uniqueId(), false, "", "127.0.0.1", -1, false);
    EXPECT_EQ(madeWithABadPort.connect("", -1, WAIT_SECONDS), Error::INVALID_PARAMETER);
    EXPECT_EQ(madeWithABadPort.communicationState(), ComState::DISCONNECTED);
}

TEST_F(AClient, HasNoTrafficWhilePaused) {
    ASSERT_EQ(client_.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    client_.pause();
    // The network step under way may still carry a message.
    ASSERT_TRUE(mqtt::test::eventually(
        [&] { return client_.publishWait("a", "x", 1, false, 1) == Error::TIMEOUT; }));
    EXPECT_EQ(client_.publishWait("a", "y", 1, false, 1), Error::TIMEOUT);
    client_.resume();
    EXPECT_EQ(client_.publishWait("a", "z", 1, false, WAIT_SECONDS), Error::SUCCESS);
}

TEST_F(AClient, MadeToConnectIsConnectedOrGoesOnTrying) {
    MqttClient const connected(mqtt::test::uniqueId(), false, "", broker_.host(), broker_.port(),
                               true, broker_.connectionOptions());
    EXPECT_EQ(connected.communicationState(), ComState::CONNECTED);
    broker_.kill();
    MqttClient const trying(mqtt::test::uniqueId(), false, "", broker_.host(), broker_.port(), true,
                            broker_.connectionOptions());
    EXPECT_EQ(trying.communicationState(), ComState::CONNECTING);
    broker_.start();
    EXPECT_TRUE(mqtt::test::becomesConnected(trying));
}

TEST(AClientOfAUnixSocket, ConnectsWithPortZero) {
    mqtt::test::BrokerOptions options;
    options.unixSocket = true;
    Broker broker(options);
    MqttClient client(mqtt::test::uniqueId(), false, "", broker.socketPath(), 0, false);
    EXPECT_EQ(client.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_EQ(client.publishWait("a", "x", 2, false, WAIT_SECONDS), Error::SUCCESS);
}

TEST(AClientWithoutABroker, IsToldTheSystemsReasonAndGoesOnTrying) {
    mqtt::test::PortLease const port; // without a listener
    MqttClient client(mqtt::test::uniqueId(), false, "", "127.0.0.1", port.port(), false);
    std::ostringstream text;
    text << client.connect("", -1, WAIT_SECONDS);
    EXPECT_EQ(text.str(), "ERRNO #" + std::to_string(ECONNREFUSED));
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
    EXPECT_EQ(client.connect("", -1, WAIT_SECONDS), Error::CONNECTION_PENDING);
    EXPECT_EQ(client.disconnect(WAIT_SECONDS), Error::NO_CONN);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
}

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
