#include "support/scripted_server.hpp"

#include "support/raw_peer.hpp"
#include "support/socket.hpp"

#include <gmock/gmock.h>
#include <poll.h>

namespace {

using support::MqttPacket;
using support::PacketType;
using support::RawPeer;
using support::ScriptedServer;
using Mode = ScriptedServer::Mode;
using Reaction = ScriptedServer::Reaction;

class AScriptedServer : public testing::Test {
protected:
    ScriptedServer server_;
};

TEST_F(AScriptedServer, AcknowledgesAndRecordsAllPackets) {
    std::string const longPayload(300000, 'x');
    {
        RawPeer peer(server_.host(), server_.port());
        peer.subscribe("a");
        peer.publish("a", "0", 0);
        peer.publish("a", "1", 1);
        peer.publish("a/b", longPayload, 2, true);
    }
    ASSERT_TRUE(server_.waitForPackets(PacketType::DISCONNECT, 1));
    std::vector<PacketType> types;
    for (auto const& one : server_.received()) {
        types.push_back(one.packet.type);
    }
    using T = PacketType;
    EXPECT_THAT(types, testing::ElementsAre(T::CONNECT, T::SUBSCRIBE, T::PUBLISH, T::PUBLISH,
                                            T::PUBLISH, T::PUBREL, T::DISCONNECT));
    MqttPacket const packet = server_.received(PacketType::PUBLISH).at(2);
    EXPECT_EQ(packet.topic, "a/b");
    EXPECT_TRUE(packet.payload == longPayload);
    EXPECT_EQ(packet.qos, 2);
    EXPECT_TRUE(packet.retain);
    EXPECT_EQ(packet.mid, server_.received(PacketType::PUBREL).at(0).mid);
    EXPECT_TRUE(server_.waitForNoConnection());
}

TEST_F(AScriptedServer, PublishesToItsClient) {
    EXPECT_FALSE(server_.publish("a", "b"));
    RawPeer const peer(server_.host(), server_.port());
    EXPECT_TRUE(server_.publish("a", "0", 0));
    EXPECT_TRUE(server_.publish("b", "2", 2, true));
    ASSERT_TRUE(peer.waitForMessages(2));
    EXPECT_EQ(peer.messages()[0], (support::Message{"a", "0", 0, false}));
    EXPECT_EQ(peer.messages()[1], (support::Message{"b", "2", 2, true}));
}

TEST_F(AScriptedServer, RefusesOrDropsConnections) {
    server_.refuseWith(3);
    EXPECT_THROW(RawPeer(server_.host(), server_.port()), std::runtime_error);
    server_.setMode(Mode::BROKER);
    server_.dropAtPacket(PacketType::PUBLISH, 2);
    RawPeer peer(server_.host(), server_.port());
    peer.publish("a", "1", 1);
    peer.post("a", "2", 1);
    EXPECT_TRUE(peer.waitForConnectionLoss());
    EXPECT_EQ(server_.count(PacketType::PUBLISH), 2U);
}

TEST_F(AScriptedServer, KeepsAnswersBackUntilTheirRelease) {
    server_.hold(PacketType::PUBLISH);
    RawPeer peer(server_.host(), server_.port());
    peer.post("a", "2", 2);
    ASSERT_TRUE(server_.waitForPackets(PacketType::PUBLISH, 1));
    peer.subscribe("a"); // answered: an earlier answer would be here too
    EXPECT_EQ(server_.count(PacketType::PUBREL), 0U);
    server_.release();
    peer.waitForAcknowledgements();
    EXPECT_EQ(server_.count(PacketType::PUBREL), 1U);
}

TEST_F(AScriptedServer, AsksItsHookAboutEveryPacket) {
    server_.setHook([this](MqttPacket const& packet) {
        if (packet.type == PacketType::SUBSCRIBE) {
            server_.publish("a", "before the acknowledgement");
        }
        return packet.type == PacketType::PUBLISH ? Reaction::IGNORE : Reaction::ANSWER;
    });
    RawPeer peer(server_.host(), server_.port());
    peer.post("a", "ignored", 2);
    peer.subscribe("a");
    EXPECT_EQ(peer.payloads(), std::vector<std::string>{"before the acknowledgement"});
    EXPECT_EQ(server_.count(PacketType::PUBLISH), 1U);
    EXPECT_EQ(server_.count(PacketType::PUBREL), 0U);
}

TEST(AServerThatDoesNotAccept, LetsConnectingBlockUntilItAccepts) {
    ScriptedServer server;
    RawPeer peer(server.host(), server.port());
    server.setMode(Mode::NOT_ACCEPTING);
    peer.publish("a", "the old connection works", 2);
    auto const socket = support::startConnecting(server.port());
    pollfd connected{socket.get(), POLLOUT, 0};
    EXPECT_EQ(::poll(&connected, 1, 100), 0);
    EXPECT_EQ(server.tcpConnections(), 1);
    server.setMode(Mode::BROKER);
    ASSERT_TRUE(server.waitForTcpConnections(2));
    EXPECT_EQ(::poll(&connected, 1, 10000), 1);
    EXPECT_EQ(connected.revents & (POLLERR | POLLHUP), 0);
    EXPECT_EQ(server.tcpConnections(), 2);
}

} // namespace
