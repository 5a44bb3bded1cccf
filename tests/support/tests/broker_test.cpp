#include "support/broker.hpp"

#include "support/raw_peer.hpp"
#include "support/socket.hpp"

#include <gmock/gmock.h>

#include <filesystem>
#include <thread>

namespace {

using support::Broker;
using support::RawPeer;
using testing::HasSubstr;

TEST(ABroker, AcceptsConnectionsFromTheStart) {
    Broker broker;
    EXPECT_TRUE(support::connectTo(broker.port()).valid());
    EXPECT_TRUE(broker.running());
}

TEST(ABroker, RunsBesideOthers) {
    Broker one;
    Broker other;
    EXPECT_NE(one.port(), other.port());
    RawPeer listener(other);
    listener.subscribe("#");
    RawPeer(one).publish("a", "at the one");
    RawPeer(other).publish("a", "at the other");
    ASSERT_TRUE(listener.waitForMessages(1));
    EXPECT_EQ(listener.payloads(), std::vector<std::string>{"at the other"});
}

TEST(ABroker, IsGoneWhenItIsKilledAndComesBackOnItsPort) {
    Broker broker;
    int const port = broker.port();
    pid_t const first = broker.pid();
    broker.kill();
    EXPECT_FALSE(support::isAlive(first));
    EXPECT_FALSE(support::connectTo(port).valid());
    broker.start();
    EXPECT_EQ(broker.port(), port);
    EXPECT_NE(broker.pid(), first);
    EXPECT_TRUE(support::connectTo(port).valid());
}

TEST(ABroker, ComesBackAtOnceWithConnectionsOpenAsItDied) {
    Broker broker;
    for (int i = 0; i < 5; ++i) {
        RawPeer const peer(broker);
        broker.kill();
        broker.start();
        EXPECT_TRUE(peer.waitForConnectionLoss());
    }
}

TEST(ABroker, SurvivesTheThreadThatRestartedIt) {
    Broker broker;
    std::thread([&] {
        broker.kill();
        broker.start();
    }).join();
    RawPeer peer(broker);
    peer.publish("a", "b");
    EXPECT_TRUE(broker.running());
}

TEST(ABroker, EndsInOrderWhenStopped) {
    Broker broker;
    broker.stop();
    EXPECT_FALSE(broker.running());
    EXPECT_THAT(broker.log(), HasSubstr("terminating"));
}

TEST(ABroker, AnswersNothingWhileSuspended) {
    Broker broker;
    RawPeer peer(broker);
    broker.suspend();
    peer.post("a", "b", 1);
    EXPECT_FALSE(peer.waitForConnectionLoss(std::chrono::milliseconds(50)));
    broker.resume();
    peer.waitForAcknowledgements();
    EXPECT_TRUE(peer.connected());
}

TEST(ABroker, CanBeStoppedWhileSuspended) {
    Broker broker;
    broker.suspend();
    broker.stop();
    EXPECT_FALSE(broker.running());
}

TEST(ABroker, ForgetsRetainedMessagesWhenKilled) {
    Broker broker;
    RawPeer(broker).publish("a", "b", 2, true);
    ASSERT_TRUE(support::retained(broker, "a"));
    broker.kill();
    broker.start();
    EXPECT_FALSE(support::retained(broker, "a"));
}

TEST(APersistentBroker, KeepsRetainedMessagesThoughKilled) {
    Broker::Options options;
    options.persistence = true;
    Broker broker(options);
    RawPeer(broker).publish("a", "b", 2, true);
    ASSERT_TRUE(support::retained(broker, "a"));
    broker.kill();
    broker.start();
    EXPECT_EQ(support::retained(broker, "a"), (support::Message{"a", "b", 2, true}));
}

TEST(ABroker, ListensOnAUnixSocketWhenAsked) {
    Broker::Options options;
    options.unixSocket = true;
    Broker broker(options);
    RawPeer peer(broker.socketPath(), 0);
    peer.subscribe("a");
    RawPeer(broker).publish("a", "b");
    EXPECT_TRUE(peer.waitForMessages(1));
    broker.kill();
    broker.start();
    EXPECT_NO_THROW(RawPeer(broker.socketPath(), 0));
}

TEST(ABroker, TakesMoreLinesOfConfiguration) {
    Broker::Options options;
    options.extraLines = {"max_packet_size 100"};
    Broker broker(options);
    RawPeer peer(broker);
    peer.post("a", std::string(200, 'x'), 1);
    EXPECT_TRUE(peer.waitForConnectionLoss());
}

TEST(ABroker, SaysWhyItDoesNotStart) {
    Broker::Options options;
    options.extraLines = {"no_such_setting true"};
    try {
        Broker const broker(options);
        FAIL() << "it started";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), HasSubstr("no_such_setting"));
    }
}

TEST(ABroker, LeavesNothingBehind) {
    Broker::Options options;
    options.unixSocket = true;
    std::filesystem::path directory;
    pid_t pid = 0;
    {
        Broker const broker(options);
        directory = std::filesystem::path(broker.socketPath()).parent_path();
        pid = broker.pid();
        EXPECT_TRUE(std::filesystem::exists(directory));
    }
    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_FALSE(support::isAlive(pid));
}

} // namespace
