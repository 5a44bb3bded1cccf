#include "support/scripted_server.hpp"

#include "support/raw_peer.hpp"
#include "support/socket.hpp"

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

using support::MqttPacket;
using support::PacketType;
using support::RawPeer;
using support::ScriptedServer;
using Mode = ScriptedServer::Mode;
using Reaction = ScriptedServer::Reaction;

bool connectionStands(support::FileDescriptor const& socket) {
    pollfd news{socket.get(), POLLOUT, 0};
    return ::poll(&news, 1, 0) == 1 && (news.revents & (POLLERR | POLLHUP)) == 0;
}

class AScriptedServer : public testing::Test {
protected:
    RawPeer::Options const unconnected_ = [] {
        RawPeer::Options options;
        options.connect = false;
        return options;
    }();
    ScriptedServer server_;
};

TEST_F(AScriptedServer, AnswersLikeABroker) {
    RawPeer peer(server_.host(), server_.port());
    peer.subscribe("a");
    peer.unsubscribe("a");
    peer.publish("a", "0", 0);
    peer.publish("a", "1", 1);
    peer.publish("a", "2", 2);
    peer.disconnect();
    ASSERT_TRUE(server_.waitForPackets(PacketType::DISCONNECT, 1));
    std::vector<PacketType> types;
    for (auto const& one : server_.received()) {
        types.push_back(one.packet.type);
    }
    using T = PacketType;
    EXPECT_THAT(types, testing::ElementsAre(T::CONNECT, T::SUBSCRIBE, T::UNSUBSCRIBE, T::PUBLISH,
                                            T::PUBLISH, T::PUBLISH, T::PUBREL, T::DISCONNECT));
    EXPECT_TRUE(server_.waitForNoConnection());
}

TEST_F(AScriptedServer, KeepsWhatItHears) {
    RawPeer peer(server_.host(), server_.port());
    peer.publish("a/b", "payload", 2, true);
    MqttPacket const packet = server_.received(PacketType::PUBLISH).at(0);
    EXPECT_EQ(packet.topic, "a/b");
    EXPECT_EQ(packet.payload, "payload");
    EXPECT_EQ(packet.qos, 2);
    EXPECT_TRUE(packet.retain);
    EXPECT_FALSE(packet.dup);
    EXPECT_EQ(packet.mid, server_.received(PacketType::PUBREL).at(0).mid);
}

TEST_F(AScriptedServer, CountsConnectionsAndConnects) {
    RawPeer const one(server_.host(), server_.port());
    RawPeer const two(server_.host(), server_.port());
    auto const silent = support::connectTo(server_.port());
    ASSERT_TRUE(server_.waitForTcpConnections(3));
    EXPECT_EQ(server_.tcpConnections(), 3);
    EXPECT_EQ(server_.count(PacketType::CONNECT), 2U);
    EXPECT_EQ(server_.openConnections(), 3);
}

TEST_F(AScriptedServer, PublishesToItsClient) {
    RawPeer const peer(server_.host(), server_.port());
    EXPECT_TRUE(server_.publish("a", "0", 0));
    EXPECT_TRUE(server_.publish("b", "2", 2, true));
    ASSERT_TRUE(peer.waitForMessages(2));
    EXPECT_EQ(peer.messages()[0], (support::Message{"a", "0", 0, false}));
    EXPECT_EQ(peer.messages()[1], (support::Message{"b", "2", 2, true}));
}

TEST_F(AScriptedServer, HasNobodyToPublishToWithoutAClient) {
    EXPECT_FALSE(server_.publish("a", "b"));
    EXPECT_FALSE(server_.drop());
}

TEST_F(AScriptedServer, RefusesWithTheCodeItIsGiven) {
    server_.refuseWith(3);
    RawPeer peer(server_.host(), server_.port(), unconnected_);
    EXPECT_THROW(peer.connect(), std::runtime_error);
    EXPECT_EQ(server_.count(PacketType::CONNECT), 1U);
    server_.setMode(Mode::BROKER);
    EXPECT_NO_THROW(peer.connect());
}

TEST_F(AScriptedServer, DropsTheConnectionAtTheNthPacketOfAType) {
    server_.dropAtPacket(PacketType::PUBLISH, 2);
    RawPeer peer(server_.host(), server_.port());
    peer.publish("a", "1", 1);
    peer.post("a", "2", 1);
    EXPECT_TRUE(peer.waitForConnectionLoss());
    ASSERT_TRUE(server_.waitForPackets(PacketType::PUBLISH, 2));
    EXPECT_TRUE(server_.waitForNoConnection());
}

TEST_F(AScriptedServer, CanAnswerBeforeItDrops) {
    server_.dropAtPacket(PacketType::PUBLISH, 1, Reaction::ANSWER_THEN_DROP);
    RawPeer peer(server_.host(), server_.port());
    peer.publish("a", "1", 1);
    EXPECT_TRUE(peer.waitForConnectionLoss());
    EXPECT_TRUE(server_.waitForNoConnection());
}

TEST_F(AScriptedServer, HoldsAnswersBackUntilTheyAreReleased) {
    server_.hold(PacketType::PUBLISH);
    RawPeer peer(server_.host(), server_.port());
    peer.post("a", "1", 1);
    peer.post("a", "2", 2);
    ASSERT_TRUE(server_.waitForPackets(PacketType::PUBLISH, 2));
    peer.subscribe("a"); // answered, so that an answer to what came before would be here too
    EXPECT_EQ(server_.count(PacketType::PUBREL), 0U);
    server_.release();
    peer.waitForAcknowledgements();
    EXPECT_EQ(server_.count(PacketType::PUBREL), 1U);
}

TEST_F(AScriptedServer, AsksItsHookAboutEveryPacket) {
    server_.setHook([](MqttPacket const& packet) {
        return packet.payload == "ignored" ? Reaction::IGNORE : Reaction::ANSWER;
    });
    RawPeer peer(server_.host(), server_.port());
    peer.publish("a", "answered", 1);
    peer.post("a", "ignored", 1);
    peer.subscribe("a");
    EXPECT_EQ(server_.count(PacketType::PUBLISH), 2U);
    peer.drop();
}

TEST_F(AScriptedServer, LetsAHookUseIt) {
    server_.setHook([this](MqttPacket const& packet) {
        if (packet.type == PacketType::SUBSCRIBE) {
            server_.publish("a", "ahead of the acknowledgement");
        }
        return Reaction::ANSWER;
    });
    RawPeer peer(server_.host(), server_.port());
    peer.subscribe("a");
    EXPECT_EQ(peer.payloads(), std::vector<std::string>{"ahead of the acknowledgement"});
}

TEST(ASilentServer, AcceptsAndSaysNothing) {
    ScriptedServer server(Mode::SILENT);
    auto const socket = support::connectTo(server.port());
    ASSERT_TRUE(socket.valid());
    ASSERT_TRUE(support::sendAll(socket, support::pingresp()));
    ASSERT_TRUE(server.waitForPackets(PacketType::PINGRESP, 1));
    EXPECT_TRUE(connectionStands(socket));
    char byte = 0;
    EXPECT_EQ(::recv(socket.get(), &byte, 1, MSG_DONTWAIT), -1);
}

TEST(ADeafServer, LetsConnectingBlock) {
    ScriptedServer server(Mode::NOT_ACCEPTING);
    auto const socket = support::startConnecting(server.port());
    ASSERT_TRUE(socket.valid());
    pollfd news{socket.get(), POLLOUT, 0};
    EXPECT_EQ(::poll(&news, 1, 100), 0);
    EXPECT_EQ(server.tcpConnections(), 0);
}

TEST(ADeafServer, AcceptsWhoStillTriesOnceItListens) {
    ScriptedServer server(Mode::NOT_ACCEPTING);
    auto const socket = support::startConnecting(server.port());
    server.setMode(Mode::BROKER);
    ASSERT_TRUE(server.waitForTcpConnections(1));
    EXPECT_TRUE(support::eventually([&] { return connectionStands(socket); }));
    EXPECT_EQ(server.tcpConnections(), 1);
}

TEST(AServerThatTurnsDeaf, KeepsTheConnectionsItHas) {
    ScriptedServer server;
    RawPeer peer(server.host(), server.port());
    server.setMode(Mode::NOT_ACCEPTING);
    peer.publish("a", "b", 2);
    auto const socket = support::startConnecting(server.port());
    pollfd news{socket.get(), POLLOUT, 0};
    EXPECT_EQ(::poll(&news, 1, 100), 0);
}

} // namespace
