#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using mqtt::Topic;
using support::Delivery;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Error = mqtt::MqttClient::Error;

/// A client of ours and a raw one on a real broker, which does not send a message twice when it
/// matches two subscriptions.
class ASubscription : public testing::Test {
protected:
    static support::BrokerOptions options() {
        support::BrokerOptions result;
        result.nodelay = true;
        result.extraLines = {"allow_duplicate_messages false"};
        return result;
    }

    void subscribe(std::string const& topic, support::MessageRecorder& subscriber, int tag = 0) {
        ASSERT_EQ(client->subscribe(topic, &subscriber, tag), Error::SUCCESS);
        reachBroker();
    }

    /// Returns when the broker has handled all that the client sent.
    void reachBroker() {
        ASSERT_EQ(client->publishWait("reached", "", 1, false, 30), Error::SUCCESS);
    }

    std::string ourId() const { return mqtt::MqttClient::clientId(id_); }

    /// Publishes, and returns when everything published so far has been dispatched.
    void deliver(std::string const& topic, std::string const& payload) {
        peer.publish(topic, payload);
        std::string const name = "marker " + std::to_string(++markers_);
        if (markers_ == 1) {
            subscribe("marker", marker_);
        }
        peer.publish("marker", name);
        ASSERT_TRUE(marker_.waitForPayload(name));
    }

    support::Broker broker{options()};
    support::RawPeer peer{broker};
    support::MessageRecorder first, second, third;

private:
    static support::ClientOptions withId(zym::common::Uuid const& id) {
        support::ClientOptions result;
        result.id = id;
        return result;
    }

    zym::common::Uuid id_ = support::uniqueId();
    support::MessageRecorder marker_;
    int markers_ = 0;

protected:
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(broker, withId(id_));
};

TEST_F(ASubscription, BringsTheMessagesOfItsTopicWithItsTag) {
    subscribe("a/b", first, -7);
    deliver("a/b", "x");
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{-7, "a/b", "x"}));
}

TEST_F(ASubscription, BringsNothingOfOtherTopics) {
    subscribe("a/b", first);
    deliver("a/c", "x");
    deliver("a", "x");
    deliver("a/b/c", "x");
    EXPECT_THAT(first.deliveries(), IsEmpty());
}

TEST_F(ASubscription, IsMadeAtTheBrokerEveryTimeAlsoForARegisteredTopic) {
    peer.publish("a", "kept", 1, true);
    subscribe("a", first, 1);
    ASSERT_TRUE(first.waitForCount(1));
    // Only a new subscription at the broker brings the retained message again.
    subscribe("a", second, 2);
    EXPECT_TRUE(second.waitForCount(1));
    EXPECT_TRUE(first.waitForCount(2));
}

TEST_F(ASubscription, BringsARetainedMessageLikeALiveOne) {
    peer.publish("a", "kept", 1, true);
    subscribe("a", first, 5);
    ASSERT_TRUE(first.waitForCount(1));
    deliver("a", "live");
    EXPECT_THAT(first.deliveries(),
                ElementsAre(Delivery{5, "a", "kept"}, Delivery{5, "a", "live"}));
}

TEST_F(ASubscription, MadeTwiceBringsEachMessageTwiceAndTakesTwoCallsToEnd) {
    subscribe("a", first, 1);
    subscribe("a", first, 2);
    deliver("a", "x");
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{1, "a", "x"}, Delivery{2, "a", "x"}));
    EXPECT_EQ(client->unsubscribe("a", &first), Error::NOT_FOUND);
    EXPECT_EQ(client->unsubscribe("a", &first), Error::SUCCESS);
    first.clear();
    deliver("a", "y");
    EXPECT_THAT(first.deliveries(), IsEmpty());
}

TEST_F(ASubscription, MadeTwiceLosesItsFirstRegistrationFirst) {
    subscribe("a", first, 1);
    subscribe("a", second, 2);
    subscribe("a", first, 3);
    client->unsubscribe("a", &first);
    deliver("a", "x");
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{3, "a", "x"}));
    EXPECT_THAT(second.deliveries(), ElementsAre(Delivery{2, "a", "x"}));
}

TEST_F(ASubscription, OfTwoSubscribersStaysAtTheBrokerUntilTheSecondOneEndsIt) {
    subscribe("a", first);
    subscribe("a", second);
    EXPECT_EQ(client->unsubscribe("a", &first), Error::NOT_FOUND);
    deliver("a", "one left");
    EXPECT_THAT(broker.log(), Not(HasSubstr("Received UNSUBSCRIBE from " + ourId())));
    EXPECT_THAT(first.payloads(), IsEmpty());
    EXPECT_THAT(second.payloads(), ElementsAre("one left"));
    EXPECT_EQ(client->unsubscribe("a", &second), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribe("a", &second), Error::NOT_FOUND) << "the entry is gone";
    deliver("a", "none left");
    EXPECT_THAT(second.payloads(), ElementsAre("one left"));
}

TEST_F(ASubscription, EndedByItsLastSubscriberEndsAtTheBroker) {
    subscribe("t/a", first);
    ASSERT_EQ(client->unsubscribe("t/a", &first), Error::SUCCESS);
    reachBroker();
    EXPECT_THAT(broker.log(), HasSubstr("Received UNSUBSCRIBE from " + ourId()));
    // So the pattern's broker subscription is the only one that brings it.
    subscribe("t/+", second);
    deliver("t/a", "x");
    EXPECT_THAT(first.payloads(), IsEmpty());
    EXPECT_THAT(second.payloads(), ElementsAre("x"));
}

TEST_F(ASubscription, NeverMadeCannotBeEnded) {
    EXPECT_EQ(client->unsubscribe("a", &first), Error::NOT_FOUND);
    subscribe("a", first);
    EXPECT_EQ(client->unsubscribe("b", &first), Error::NOT_FOUND);
    EXPECT_EQ(client->unsubscribe("+", &first), Error::NOT_FOUND) << "a pattern is no search";
}

TEST_F(ASubscription, OfSomebodyElseCannotBeEnded) {
    subscribe("a", first);
    EXPECT_EQ(client->unsubscribe("a", &second), Error::NOT_FOUND);
    deliver("a", "x");
    EXPECT_THAT(first.payloads(), ElementsAre("x"));
}

TEST_F(ASubscription, IsFoundByTheTextOfItsTopic) {
    subscribe("/a/b/", first);
    deliver("a/b", "x");
    EXPECT_THAT(first.payloads(), ElementsAre("x"));
    EXPECT_EQ(client->unsubscribe(Topic("a") + "b", &first), Error::SUCCESS);
}

TEST_F(ASubscription, OfAnInvalidPatternIsRefusedAndNotRegistered) {
    for (char const* const pattern : {"a/#/b", "a+", "#a", ""}) {
        EXPECT_EQ(client->subscribe(pattern, &first, 0), Error::INVALID_PARAMETER) << pattern;
        EXPECT_EQ(client->unsubscribe(pattern, &first), Error::NOT_FOUND) << pattern;
    }
}

TEST_F(ASubscription, MadeOfNothingButASeparatorDoesNotCostTheConnection) {
    EXPECT_EQ(client->subscribe("/", &first, 0), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->subscribe("", &first, 0), Error::INVALID_PARAMETER);
    reachBroker();
    EXPECT_EQ(client->communicationState(), conv::ComState::CONNECTED);
}

TEST_F(ASubscription, OfATopicThatIsNotUtf8IsRefusedAndNotRegistered) {
    auto const malformed = static_cast<Error>(18);
    for (auto const& text : {std::string("a/\xC3("), std::string("a\0b", 3)}) {
        EXPECT_EQ(client->subscribe(text, &first, 0), malformed);
        EXPECT_EQ(client->unsubscribe(text, &first), Error::NOT_FOUND);
    }
}

TEST_F(ASubscription, MadeWhileDisconnectedReachesTheBrokerWithTheNextConnection) {
    ASSERT_EQ(client->disconnect(30), Error::SUCCESS);
    EXPECT_EQ(client->subscribe("a", &first, 3), Error::SUCCESS);
    peer.publish("a", "missed");
    ASSERT_EQ(client->connect("", -1, 30), Error::SUCCESS);
    reachBroker();
    deliver("a", "x");
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{3, "a", "x"}));
}

TEST_F(ASubscription, EndedWhileDisconnectedIsGoneAlthoughTheBrokerIsNotTold) {
    subscribe("a", first);
    subscribe("a", second);
    ASSERT_EQ(client->disconnect(30), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribe("a", &first), Error::NOT_FOUND);
    EXPECT_EQ(client->unsubscribe("a", &second), Error::NO_CONN);
    EXPECT_EQ(client->unsubscribe("a", &second), Error::NOT_FOUND);
    ASSERT_EQ(client->connect("", -1, 30), Error::SUCCESS);
    reachBroker();
    deliver("a", "x");
    EXPECT_THAT(first.payloads(), IsEmpty());
    EXPECT_THAT(second.payloads(), IsEmpty());
}

TEST_F(ASubscription, OfOverlappingPatternsIsTheFirstInByteOrderOnly) {
    subscribe("a/+", first);
    subscribe("a/#", second);
    deliver("a/b", "x");
    EXPECT_THAT(first.payloads(), IsEmpty());
    EXPECT_THAT(second.payloads(), ElementsAre("x"));
}

TEST_F(ASubscription, OfExactlyTheTopicWinsOverPatterns) {
    subscribe("a/#", first);
    subscribe("a/+", second);
    subscribe("a/b", third);
    deliver("a/b", "x");
    deliver("a/c", "y");
    EXPECT_THAT(third.payloads(), ElementsAre("x"));
    EXPECT_THAT(first.payloads(), ElementsAre("y"));
    EXPECT_THAT(second.payloads(), IsEmpty());
}

TEST_F(ASubscription, IsChosenByTheTopicWithoutItsOuterSeparators) {
    subscribe("#", first);
    subscribe("a/b", second, 4);
    // To the broker these are other topics than a/b: they come because of "#".
    deliver("/a/b", "leading");
    deliver("a/b/", "trailing");
    EXPECT_THAT(second.deliveries(),
                ElementsAre(Delivery{4, "a/b", "leading"}, Delivery{4, "a/b", "trailing"}));
}

} // namespace
