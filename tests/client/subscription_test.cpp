// Subscriptions at a real broker.

#include "client/broker_session.hpp"

namespace {

using mqtt::Topic;
using support::Delivery;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ASubscription : public AClientAtABroker {
protected:
    ASubscription() { connect(); }
    ~ASubscription() override { client_.reset(); } // before the recorders

    void subscribe(std::string const& topic, support::MessageRecorder& subscriber, int tag = 0) {
        ASSERT_EQ(client_->subscribe(topic, &subscriber, tag), Error::SUCCESS);
        reachBroker();
    }

    /// Returns when the broker has handled all that the client has sent.
    void reachBroker() {
        ASSERT_EQ(client_->publishWait("reached", "", 1, false, WAIT_SECONDS), Error::SUCCESS);
    }

    /// Publishes; returns when all that has been published so far has been dispatched.
    void deliver(std::string const& topic, std::string const& payload) {
        peer_.publish(topic, payload);
        std::string const name = "marker " + std::to_string(++markers_);
        if (markers_ == 1) {
            subscribe("marker", marker_);
        }
        peer_.publish("marker", name);
        ASSERT_TRUE(marker_.waitForPayload(name));
    }

    support::MessageRecorder first, second;

private:
    support::MessageRecorder marker_;
    int markers_ = 0;
};

TEST_F(ASubscription, BringsTheMessagesOfItsTopicWithItsTagRetainedOnesToo) {
    peer_.publish("a/b", "kept", 1, true);
    subscribe("a/b", first, -7);
    ASSERT_TRUE(first.waitForCount(1));
    for (char const* const topic : {"a/b", "a/c", "a", "a/b/c"}) {
        deliver(topic, topic);
    }
    EXPECT_THAT(first.deliveries(),
                ElementsAre(Delivery{-7, "a/b", "kept"}, Delivery{-7, "a/b", "a/b"}));
}

TEST_F(ASubscription, IsMadeAtTheBrokerEveryTimeAlsoForARegisteredTopic) {
    peer_.publish("a", "kept", 1, true);
    subscribe("a", first, 1);
    ASSERT_TRUE(first.waitForCount(1));
    // Only a new subscription at the broker brings the retained message again.
    subscribe("a", second, 2);
    EXPECT_TRUE(second.waitForCount(1));
    EXPECT_TRUE(first.waitForCount(2));
}

TEST_F(ASubscription, MadeTwiceBringsEachMessageTwiceAndTakesTwoCallsToEnd) {
    subscribe("a", first, 1);
    subscribe("a", second, 2);
    subscribe("a", first, 3);
    deliver("a", "x");
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{1, "a", "x"}, Delivery{3, "a", "x"}));
    EXPECT_EQ(client_->unsubscribe("a", &first), Error::NOT_FOUND);
    deliver("a", "y");
    EXPECT_EQ(first.deliveries().back(), (Delivery{3, "a", "y"})) << "the first one is ended first";
    EXPECT_EQ(client_->unsubscribe("a", &first), Error::NOT_FOUND);
    first.clear();
    deliver("a", "z");
    EXPECT_THAT(first.deliveries(), IsEmpty());
    EXPECT_THAT(second.payloads(), ElementsAre("x", "y", "z"));
}

TEST_F(ASubscription, EndsAtTheBrokerWithItsLastSubscriber) {
    // The identifier of our client is the only one that unsubscribes.
    subscribe("/t/a/", first);
    subscribe("t/a", second);
    EXPECT_EQ(client_->unsubscribe("t/a", &first), Error::NOT_FOUND);
    reachBroker();
    EXPECT_THAT(broker_.log(), Not(HasSubstr("Received UNSUBSCRIBE")));
    EXPECT_EQ(client_->unsubscribe(Topic("t") + "a", &second), Error::SUCCESS);
    reachBroker();
    EXPECT_THAT(broker_.log(), HasSubstr("Received UNSUBSCRIBE"));
    deliver("t/a", "x");
    EXPECT_THAT(first.payloads(), IsEmpty());
    EXPECT_THAT(second.payloads(), IsEmpty());
}

TEST_F(ASubscription, ThatIsNotThereCannotBeEnded) {
    EXPECT_EQ(client_->unsubscribe("a", &first), Error::NOT_FOUND);
    subscribe("a", first);
    EXPECT_EQ(client_->unsubscribe("b", &first), Error::NOT_FOUND);
    EXPECT_EQ(client_->unsubscribe("+", &first), Error::NOT_FOUND) << "a pattern finds itself only";
    EXPECT_EQ(client_->unsubscribe("a", &second), Error::NOT_FOUND);
    deliver("a", "x");
    EXPECT_THAT(first.payloads(), ElementsAre("x"));
}

TEST_F(ASubscription, MadeOrEndedWhileDisconnectedCountsFromTheNextConnectionOn) {
    subscribe("ended", first);
    subscribe("ended", second);
    disconnect();
    EXPECT_EQ(client_->subscribe("made", &first, 3), Error::SUCCESS);
    EXPECT_EQ(client_->unsubscribe("ended", &first), Error::NOT_FOUND);
    EXPECT_EQ(client_->unsubscribe("ended", &second), Error::NO_CONN);
    EXPECT_EQ(client_->unsubscribe("ended", &second), Error::NOT_FOUND);
    peer_.publish("made", "missed");
    connect();
    reachBroker();
    deliver("made", "x");
    deliver("ended", "x");
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{3, "made", "x"}));
    EXPECT_THAT(second.deliveries(), IsEmpty());
}

} // namespace
