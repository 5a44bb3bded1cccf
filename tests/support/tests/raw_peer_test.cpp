#include "support/raw_peer.hpp"

#include <gmock/gmock.h>

#include <string>

namespace {

using support::Broker;
using support::Message;
using support::RawPeer;
using testing::ElementsAre;

class ARawPeer : public testing::Test {
protected:
    Broker broker_;
};

TEST_F(ARawPeer, SeesEveryMessageOnceInOrder) {
    RawPeer listener(broker_);
    listener.subscribe("a/+", 2);
    RawPeer speaker(broker_);
    speaker.publish("a/0", "zero", 0);
    speaker.publish("a/1", "one", 1);
    speaker.publish("a/2", std::string("t\0o", 3), 2);
    ASSERT_TRUE(listener.waitForMessages(3));
    EXPECT_THAT(listener.messages(),
                ElementsAre(Message{"a/0", "zero", 0, false}, Message{"a/1", "one", 1, false},
                            Message{"a/2", std::string("t\0o", 3), 2, false}));
}

TEST_F(ARawPeer, WaitsForTheAcknowledgementsOfWhatItPosted) {
    RawPeer listener(broker_);
    listener.subscribe("a", 2);
    RawPeer speaker(broker_);
    for (int i = 0; i < 200; ++i) {
        speaker.post("a", std::to_string(i), 2);
    }
    speaker.waitForAcknowledgements();
    ASSERT_TRUE(listener.waitForMessages(200));
    for (std::size_t i = 0; i < 200; ++i) {
        ASSERT_EQ(listener.messages()[i].payload, std::to_string(i));
    }
}

TEST_F(ARawPeer, SeesNothingMoreOfATopicItLeft) {
    RawPeer peer(broker_);
    peer.subscribe("a");
    peer.subscribe("b");
    peer.unsubscribe("a");
    peer.publish("a", "unseen");
    peer.publish("b", "seen");
    ASSERT_TRUE(peer.waitForMessages(1));
    EXPECT_THAT(peer.payloads(), ElementsAre("seen"));
}

TEST_F(ARawPeer, LeavesItsWillWhenItDropsTheConnection) {
    RawPeer listener(broker_);
    listener.subscribe("last");
    support::RawPeerOptions options;
    options.will = Message{"last", "words", 1, false};
    RawPeer peer(broker_, options);
    peer.drop();
    ASSERT_TRUE(listener.waitForMessages(1));
    EXPECT_THAT(listener.messages(), ElementsAre(Message{"last", "words", 1, false}));
}

TEST_F(ARawPeer, LeavesNoWillWhenItDisconnects) {
    RawPeer listener(broker_);
    listener.subscribe("last");
    support::RawPeerOptions options;
    options.will = Message{"last", "words", 1, false};
    RawPeer peer(broker_, options);
    peer.disconnect();
    listener.publish("last", "of all");
    ASSERT_TRUE(listener.waitForMessages(1));
    EXPECT_THAT(listener.payloads(), ElementsAre("of all"));
}

TEST_F(ARawPeer, GetsWhatItMissedInAPersistentSession) {
    support::RawPeerOptions options;
    options.cleanSession = false;
    options.clientId = "persistent";
    RawPeer peer(broker_, options);
    peer.subscribe("a", 1);
    peer.drop();
    EXPECT_FALSE(peer.connected());
    RawPeer(broker_).publish("a", "missed", 1);
    peer.connect();
    EXPECT_TRUE(peer.waitForMessages(1));
}

TEST_F(ARawPeer, FailsLoudlyWithoutABroker) {
    broker_.kill();
    EXPECT_THROW(RawPeer peer(broker_), std::runtime_error);
}

TEST_F(ARawPeer, FailsLoudlyWhenTheBrokerDiesUnderIt) {
    RawPeer peer(broker_);
    broker_.kill();
    ASSERT_TRUE(peer.waitForConnectionLoss());
    EXPECT_THROW(peer.subscribe("a"), std::runtime_error);
}

class ARetainedMessage : public ARawPeer {};

TEST_F(ARetainedMessage, IsReadFromTheBroker) {
    RawPeer(broker_).publish("a/b", "kept", 1, true);
    EXPECT_EQ(support::retained(broker_, "a/b"), (Message{"a/b", "kept", 1, true}));
}

TEST_F(ARetainedMessage, IsNoneWhereNothingWasRetained) {
    RawPeer(broker_).publish("a", "not kept", 2, false);
    EXPECT_EQ(support::retained(broker_, "a"), std::nullopt);
}

TEST_F(ARetainedMessage, IsNoneAfterItWasErased) {
    RawPeer peer(broker_);
    peer.publish("a", "kept", 2, true);
    peer.publish("a", "", 2, true);
    EXPECT_EQ(support::retained(broker_, "a"), std::nullopt);
}

TEST_F(ARetainedMessage, IsReadWithAllOthersUnderAPattern) {
    RawPeer peer(broker_);
    for (int i = 0; i < 50; ++i) {
        peer.publish("a/" + std::to_string(i), "kept", i % 3, true);
    }
    EXPECT_EQ(support::allRetained(broker_, "a/#").size(), 50U);
}

} // namespace
