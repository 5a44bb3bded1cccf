#include "support/broker.hpp"

#include "support/raw_peer.hpp"
#include "support/socket.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <thread>

namespace {

using namespace std::chrono_literals;
using support::Broker;
using support::RawPeer;
using testing::HasSubstr;

TEST(AWait, EndsAtItsDeadlineWithFalse) {
    EXPECT_FALSE(support::eventually([] { return false; }, 10ms));
    support::Watched<int> const value(0);
    EXPECT_FALSE(value.waitFor([](int v) { return v == 7; }, 10ms));
}

TEST(APortLease, IsNeverGivenTwiceAtATime) {
    support::PortLease const first;
    EXPECT_TRUE(support::canBind(first.port()));
    for (int i = 0; i < 200; ++i) {
        EXPECT_NE(support::PortLease().port(), first.port());
    }
}

TEST(ABroker, HasEndedWhenItIsKilledAndForgetsRetainedMessages) {
    Broker broker;
    int const port = broker.port();
    RawPeer peer(broker);
    peer.publish("a", "b", 2, true);
    EXPECT_EQ(support::retained(broker, "a"), (support::Message{"a", "b", 2, true}));
    pid_t const process = broker.pid();
    broker.kill();
    EXPECT_FALSE(support::isAlive(process));
    EXPECT_TRUE(peer.waitForConnectionLoss());
    EXPECT_THROW(RawPeer(broker.host(), port), std::runtime_error);
    broker.start();
    EXPECT_EQ(broker.port(), port);
    EXPECT_EQ(support::retained(broker, "a"), std::nullopt);
}

TEST(ABroker, SurvivesTheThreadThatRestartedIt) {
    Broker broker;
    std::thread([&] {
        broker.stop();
        broker.start();
    }).join();
    RawPeer(broker).publish("a", "b");
    EXPECT_TRUE(broker.running());
}

TEST(ABroker, AnswersNothingWhileSuspended) {
    Broker broker;
    RawPeer peer(broker);
    peer.subscribe("a");
    broker.suspend();
    peer.post("a", "b", 1);
    EXPECT_FALSE(peer.waitForMessages(1, 50ms));
    broker.resume();
    peer.waitForAcknowledgements();
    EXPECT_TRUE(peer.waitForMessages(1));
}

TEST(ABroker, ReportsWhyItDoesNotStart) {
    Broker::Options options;
    options.extraLines = {"no_such_setting true"};
    try {
        Broker const broker(options);
        FAIL() << "it started";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), HasSubstr("no_such_setting"));
    }
}

} // namespace
