#include "mqtt/client.hpp"

#include "support/broker.hpp"
#include "support/recorder.hpp"
#include "support/scripted_server.hpp"
#include "support/test_client.hpp"
#include "support/watchdog.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

namespace {

std::atomic<int> promptAcknowledgements{0};

} // namespace

// Only the call tells: the kernel changes this option by itself as well.
extern "C" __attribute__((visibility("default"))) int
setsockopt(int fd, int level, int option, void const* value, socklen_t length) {
    using SetOption = int (*)(int, int, int, void const*, socklen_t);
    static auto const original = reinterpret_cast<SetOption>(::dlsym(RTLD_NEXT, "setsockopt"));
    if (level == IPPROTO_TCP && option == TCP_QUICKACK) {
        ++promptAcknowledgements;
    }
    return original(fd, level, option, value, length);
}

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::Broker;
using support::PacketType;
using support::ScriptedServer;
using support::StateRecorder;
using testing::ElementsAre;
using Error = MqttClient::Error;
using Mode = ScriptedServer::Mode;

constexpr unsigned PATIENCE = 30; // seconds

/// The sockets of this process that are connected to a loopback port.
std::vector<int> socketsTo(int port) {
    std::vector<int> found;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int const fd = std::stoi(entry.path().filename().string());
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0
            || peer.ss_family != AF_INET) {
            continue;
        }
        sockaddr_in internet{};
        std::memcpy(&internet, &peer, sizeof internet);
        if (ntohs(internet.sin_port) == port) {
            found.push_back(fd);
        }
    }
    return found;
}

// Members die in reverse order: the client before its listener and its server.
class AHandshake : public testing::Test {
protected:
    ScriptedServer server;
    StateRecorder states;
    MqttClient client{support::uniqueId(), false, "", server.host(), server.port(), false};
};

TEST_F(AHandshake, TakesOneTcpConnectionAndOneConnectPacketAThousandTimesInARow) {
    support::Watchdog::limit(std::chrono::minutes(3));
    int const rounds = 1000;
    for (int i = 0; i < rounds; ++i) {
        // A back-off of half a second would be followed by a connection of its own.
        ASSERT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS) << i;
        ASSERT_EQ(client.disconnect(PATIENCE), Error::SUCCESS) << i;
    }
    EXPECT_TRUE(server.waitForPackets(PacketType::DISCONNECT, rounds));
    EXPECT_EQ(server.tcpConnections(), rounds);
    EXPECT_EQ(server.count(PacketType::CONNECT), static_cast<std::size_t>(rounds));
}

TEST_F(AHandshake, IsTheCallersAloneWhileItWaitsForTcp) {
    server.setMode(Mode::NOT_ACCEPTING);
    auto connecting =
        std::async(std::launch::async, [&] { return client.connect("", -1, PATIENCE); });
    ASSERT_TRUE(
        support::eventually([&] { return client.communicationState() == ComState::CONNECTING; }));
    server.setMode(Mode::BROKER);
    EXPECT_EQ(connecting.get(), Error::SUCCESS);
    EXPECT_EQ(server.count(PacketType::CONNECT), 1U);
}

TEST_F(AHandshake, IsBegunByOneOfTwoCallersOnly) {
    auto other = std::async(std::launch::async, [&] { return client.connect("", -1, PATIENCE); });
    auto const mine = client.connect("", -1, PATIENCE);
    EXPECT_THAT((std::vector{mine, other.get()}),
                testing::UnorderedElementsAre(Error::SUCCESS, Error::CONNECTION_PENDING));
    EXPECT_EQ(server.count(PacketType::CONNECT), 1U);
}

TEST_F(AHandshake, ThatIsRefusedGoesFromConnectingToConnectionLost) {
    client.registerListener(&states);
    server.refuseWith(5);
    server.setMode(Mode::REFUSE);
    EXPECT_EQ(client.connect("", -1, 1), Error::TIMEOUT);
    EXPECT_THAT(states.history(), ElementsAre(ComState::CONNECTING, ComState::CONNECTION_LOST));
    server.setMode(Mode::BROKER);
    EXPECT_TRUE(states.waitFor(ComState::CONNECTED)) << "it goes on trying";
    client.unregisterListener(&states);
}

TEST_F(AHandshake, WithASilentServerLeavesTheClientConnecting) {
    server.setMode(Mode::SILENT);
    EXPECT_EQ(client.connect("", -1, 1), Error::TIMEOUT);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
    EXPECT_EQ(server.count(PacketType::CONNECT), 1U);
}

TEST_F(AHandshake, CanBeCalledOffByADisconnect) {
    server.setMode(Mode::SILENT);
    ASSERT_EQ(client.connect("", -1, 0), Error::TIMEOUT);
    EXPECT_EQ(client.disconnect(PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client.communicationState(), ComState::DISCONNECTED);
}

TEST_F(AHandshake, BrokenOffByTheServerIsTriedAgain) {
    client.registerListener(&states);
    server.dropAtPacket(PacketType::CONNECT, 1);
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS);
    EXPECT_THAT(states.history(),
                ElementsAre(ComState::CONNECTING, ComState::CONNECTION_LOST, ComState::CONNECTED));
    EXPECT_EQ(server.count(PacketType::CONNECT), 2U);
    client.unregisterListener(&states);
}

TEST_F(AHandshake, CarriesTheClientIdentifierAndTheKeepAlive) {
    zym::common::Uuid const id(99ULL);
    MqttClient other(id, true, "", server.host(), server.port(), true);
    auto const packets = server.received(PacketType::CONNECT);
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].clientId, id.base64URL());
    EXPECT_EQ(packets[0].keepAlive, 30);
    EXPECT_FALSE(packets[0].cleanSession);
    EXPECT_FALSE(packets[0].hasWill);
}

TEST_F(AHandshake, LeavesASocketThatNoChildProcessInherits) {
    auto const isKeptFromChildren = [&] {
        auto const sockets = socketsTo(server.port());
        return sockets.size() == 1 && (::fcntl(sockets[0], F_GETFD) & FD_CLOEXEC) != 0;
    };
    client.registerListener(&states);
    ASSERT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS);
    EXPECT_TRUE(isKeptFromChildren());
    server.drop();
    ASSERT_TRUE(states.waitForHistory({ComState::CONNECTING, ComState::CONNECTED,
                                       ComState::CONNECTION_LOST, ComState::CONNECTED}));
    EXPECT_TRUE(isKeptFromChildren()) << "after a reconnection";
    client.unregisterListener(&states);
}

TEST(AConnection, IsToldToAcknowledgeAtOnceAgainAndAgain) {
    Broker const broker;
    auto const client = support::testClient(broker);
    for (int i = 0; i < 3; ++i) {
        int const before = promptAcknowledgements;
        // Not after every exchange: on a busy machine the kernel may have acknowledged before us.
        ASSERT_TRUE(support::eventually([&] {
            EXPECT_EQ(client->publishWait("a", "x", 2, false, PATIENCE), Error::SUCCESS);
            return promptAcknowledgements > before;
        })) << i;
    }
}

} // namespace
