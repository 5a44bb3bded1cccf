// Which subscribers the client calls for a message, and how their registrations end.

#include "client/client_on_a_script.hpp"

#include "mqtt/test/watched.hpp"
#include "support/timeout_factor.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace {

using mqtt::Topic;
using mqtt::test::Delivery;
using mqtt::test::isSet;
using mqtt::test::MessageRecorder;
using mqtt::test::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = mqtt::MqttClient::Error;
using Operation = support::StandIn::Operation;
using Strings = std::vector<std::string>;

class ADispatch : public AClientOnAScript {
protected:
    ADispatch() { connect(); }
    ~ADispatch() override { client_.reset(); } // before its subscribers

    void subscribe(std::string const& topic, MessageRecorder& recorder, int tag = 0) {
        ASSERT_EQ(client_->subscribe(topic, &recorder, tag), Error::SUCCESS);
    }

    void send(std::string const& topic, std::string const& payload) {
        script_->deliver(topic, payload);
    }

    MessageRecorder first_, second_, third_;
};

TEST_F(ADispatch, CallsASubscriberForEachOfItsSubscriptionsInTheirOrderWithItsTag) {
    std::vector<int> tags;
    auto const keep = [&](int tag, auto&&...) { tags.push_back(tag); };
    MessageRecorder one(keep);
    MessageRecorder two(keep);
    auto const receivedTags = [&] {
        tags.clear();
        send("a", "x");
        letTheStepEnd();
        return tags;
    };
    subscribe("a", two, 7);
    subscribe("a", one, INT32_MIN);
    subscribe("a", two, 0);
    subscribe("a", one, INT32_MAX);
    EXPECT_THAT(receivedTags(), ElementsAre(7, INT32_MIN, 0, INT32_MAX));
    EXPECT_EQ(client_->unsubscribe("a", &two), Error::NOT_FOUND);
    EXPECT_THAT(receivedTags(), ElementsAre(INT32_MIN, 0, INT32_MAX)) << "the first one is ended";
    EXPECT_EQ(client_->unsubscribe("a", &two), Error::NOT_FOUND);
    EXPECT_THAT(receivedTags(), ElementsAre(INT32_MIN, INT32_MAX));
    client_->release(&one);
}

TEST_F(ADispatch, GivesTheParsedTopicOfTheMessageAndNotThePattern) {
    unsigned levels = 0;
    MessageRecorder recorder([&](int, Topic const& topic, auto&&) { levels = topic.size(); });
    subscribe("#", recorder);
    send("/a//b/", "x");
    letTheStepEnd();
    client_->release(&recorder);
    EXPECT_EQ(recorder.deliveries().front(), (Delivery{0, "a//b", "x"}));
    EXPECT_EQ(levels, 3U);
}

TEST_F(ADispatch, HandsOverAnyPayload) {
    std::string everyByte;
    for (int i = 0; i < 512; ++i) {
        everyByte.push_back(static_cast<char>(i));
    }
    Strings const payloads{everyByte, std::string(3, '\0'), "", std::string(3'000'000, 'x')};
    subscribe("a", first_, 6);
    for (auto const& payload : payloads) {
        send("a", payload);
    }
    letTheStepEnd();
    EXPECT_TRUE(first_.payloads() == payloads);
}

/// What a subscriber changes for another one of the same topic, in its call for the first of the
/// messages "1" and "2".
struct Change {
    enum class Place { AHEAD, BEHIND, NOWHERE } place; ///< of the other one's subscription
    void (*make)(mqtt::MqttClient& client, MessageRecorder& other);
    std::vector<std::string> received; ///< by the other one
};

void unsubscribe(mqtt::MqttClient& client, MessageRecorder& other) {
    client.unsubscribe("a", &other);
}

void release(mqtt::MqttClient& client, MessageRecorder& other) {
    client.release(&other);
}

void add(mqtt::MqttClient& client, MessageRecorder& other) {
    EXPECT_EQ(client.subscribe("a", &other, 0), mqtt::MqttClient::Error::SUCCESS);
}

TEST_F(ADispatch, FollowsWhatASubscriberChangesForAnotherInItsCall) {
    using Place = Change::Place;
    for (auto const& [place, make, received] :
         {Change{Place::BEHIND, unsubscribe, {"1"}}, Change{Place::BEHIND, release, {}},
          Change{Place::AHEAD, release, {"1"}}, Change{Place::NOWHERE, add, {"2"}}}) {
        MessageRecorder other;
        MessageRecorder last;
        MessageRecorder changing([&, make = make](int, auto&&, std::string const& payload) {
            if (payload == "1") {
                make(*client_, other);
            }
        });
        if (place == Place::AHEAD) {
            subscribe("a", other);
        }
        subscribe("a", changing);
        if (place == Place::BEHIND) {
            subscribe("a", other);
        }
        subscribe("a", last);
        send("a", "1");
        send("a", "2");
        letTheStepEnd();
        EXPECT_EQ(other.payloads(), received);
        EXPECT_THAT(last.payloads(), ElementsAre("1", "2"));
        for (auto* const recorder : {&other, &changing, &last}) {
            client_->release(recorder);
        }
    }
}

/// ThreadSanitizer sees more here than the assertions do.
TEST_F(ADispatch, MeetsSubscribersThatComeAndGo) {
    std::atomic<bool> stop{false};
    script_->post([&](auto& object) {
        std::string topic = "a";
        mosquitto_message message{};
        message.topic = topic.data();
        while (!stop) {
            object.on_message(&message);
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 400 / support::TIMEOUT_FACTOR; ++round) {
        std::atomic<bool> isReleased{false};
        MessageRecorder subscriber([&](auto&&...) { EXPECT_FALSE(isReleased); });
        for (char const* const topic : {"a", "+", "other"}) {
            subscribe(topic, subscriber);
        }
        if (round % 8 == 0) {
            EXPECT_TRUE(subscriber.waitForCount(1));
        }
        client_->unsubscribe("a", &subscriber);
        client_->release(&subscriber);
        isReleased = true;
    }
    stop = true;
    letTheStepEnd();
}

/// A broker's answers to the end of a subscription and to a later one of the same topic.
class ABroker : public ADispatch {
protected:
    ABroker() {
        script_->setAcknowledging(false);
        subscribe("a", first_);
        EXPECT_EQ(client_->unsubscribe("a", &first_), Error::SUCCESS);
        subscribe("a", second_);
    }

    void acknowledgeEnd() {
        int const mid = script_->calls(Operation::UNSUBSCRIBE).front().mid;
        script_->runInLoop([mid](auto& object) { object.on_unsubscribe(mid); });
    }

    void acknowledgeLaterSubscription() {
        int const mid = script_->calls(Operation::SUBSCRIBE).back().mid;
        int const granted = 0;
        script_->runInLoop([&](auto& object) { object.on_subscribe(mid, 1, &granted); });
    }

    /// A broker that does so ends the later subscription, which it has acknowledged.
    void answerOutOfOrder() {
        acknowledgeLaterSubscription();
        acknowledgeEnd();
        EXPECT_EQ(topics(Operation::SUBSCRIBE), Strings(3, "a"));
    }
};

TEST_F(ABroker, ThatEndsASubscriptionBehindALaterOneGetsThatAgain) {
    answerOutOfOrder();
}

/// Both in one network step, so that a slow machine puts no time between them.
TEST_F(ABroker, ThatAnswersOutOfOrderIsNotToldOfAnEndBeforeANewSubscription) {
    answerOutOfOrder();
    script_->runInLoop([this](auto&) {
        EXPECT_EQ(client_->unsubscribe("a", &second_), Error::SUCCESS);
        subscribe("a", third_);
    });
    letTheStepEnd();
    EXPECT_EQ(topics(Operation::SUBSCRIBE), Strings(4, "a"));
    EXPECT_EQ(topics(Operation::UNSUBSCRIBE), Strings(1, "a"));
}

TEST_F(ABroker, ThatAnswersOutOfOrderIsToldOfAnEndLaterAndAtTheLatestByTheDestructor) {
    answerOutOfOrder();
    EXPECT_EQ(client_->unsubscribe("a", &second_), Error::SUCCESS);
    EXPECT_TRUE(script_->waitForCalls(Operation::UNSUBSCRIBE, 2));
    subscribe("b", first_);
    EXPECT_EQ(client_->unsubscribe("b", &first_), Error::SUCCESS);
    client_.reset();
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a", "a", "b", "$zym/wake"));
}

/// The connection is lost in the step that ends the subscriptions: no time passes for a slow
/// machine.
TEST_F(ABroker, ThatAnswersOutOfOrderIsNotToldOfAnEndOfWhatWasSubscribedWithoutAConnection) {
    answerOutOfOrder();
    subscribe("b", first_);
    script_->runInLoop([this](auto& object) {
        EXPECT_EQ(client_->unsubscribe("a", &second_), Error::SUCCESS);
        EXPECT_EQ(client_->unsubscribe("b", &first_), Error::SUCCESS);
        object.on_disconnect(7);
        subscribe("a", third_);
    });
    script_->loseConnection();
    ASSERT_TRUE(script_->waitForCalls(Operation::UNSUBSCRIBE, 2));
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a", "b"));
}

TEST_F(ABroker, ThatKeepsTheOrderGetsEachSubscriptionOnce) {
    acknowledgeEnd();
    acknowledgeLaterSubscription();
    EXPECT_EQ(topics(Operation::SUBSCRIBE), Strings(2, "a"));
}

TEST_F(ABroker, GetsNoSubscriptionAgainThatHasEndedMeanwhile) {
    acknowledgeLaterSubscription();
    ASSERT_EQ(client_->unsubscribe("a", &second_), Error::SUCCESS);
    acknowledgeEnd();
    EXPECT_EQ(topics(Operation::SUBSCRIBE), Strings(2, "a"));
}

class ARelease : public ADispatch {};

TEST_F(ARelease, DropsAllRegistrationsOfASubscriberUntilItSubscribesAgain) {
    subscribe("a", first_);
    subscribe("a", first_);
    subscribe("b/#", first_);
    subscribe("c", second_, 2);
    subscribe("c", first_);
    client_->release(&first_);
    client_->release(&third_); // unknown
    client_->release(nullptr);
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a", "b/#"));
    for (char const* const topic : {"a", "b/x", "c"}) {
        send(topic, topic);
    }
    letTheStepEnd();
    EXPECT_THAT(first_.deliveries(), IsEmpty());
    EXPECT_THAT(second_.deliveries(), ElementsAre(Delivery{2, "c", "c"}));
    for (char const* const topic : {"a", "b/#", "c"}) {
        EXPECT_EQ(client_->unsubscribe(topic, &first_), Error::NOT_FOUND) << topic;
    }
    subscribe("a", first_);
    send("a", "x");
    letTheStepEnd();
    EXPECT_THAT(first_.payloads(), ElementsAre("x"));
}

TEST_F(ARelease, DoesNotWaitForACallToAnotherSubscriber) {
    Watched<bool> entered;
    Watched<bool> released;
    bool inTime = false;
    MessageRecorder slow([&](auto&&...) {
        mqtt::test::set(entered);
        inTime = released.waitFor(isSet);
    });
    subscribe("a", slow);
    subscribe("a", second_);
    send("a", "x");
    ASSERT_TRUE(entered.waitFor(isSet));
    client_->release(&second_);
    mqtt::test::set(released);
    client_->release(&slow);
    EXPECT_TRUE(inTime);
    letTheStepEnd();
    EXPECT_THAT(second_.deliveries(), IsEmpty()) << "it was released before its call";
}

TEST_F(ARelease, LetsASubscriberDestroyItselfInsideItsOwnCall) {
    std::atomic<int> calls{0};
    std::unique_ptr<MessageRecorder> self;
    self = std::make_unique<MessageRecorder>([&](auto&&...) {
        ++calls;
        client_->release(self.get());
        self.reset();
    });
    subscribe("a", *self);
    subscribe("b", *self);
    subscribe("a", *self);
    subscribe("a", first_);
    send("a", "1");
    send("b", "x");
    send("a", "2");
    letTheStepEnd();
    EXPECT_EQ(self, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(first_.payloads(), ElementsAre("1", "2"));
}

} // namespace
