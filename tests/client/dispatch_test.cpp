#include "client/scripted_session.hpp"

#include "common/awaited_call.hpp"
#include "mqtt/test/watched.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace {

using mqtt::Topic;
using mqtt::test::Delivery;
using mqtt::test::isSet;
using mqtt::test::MessageRecorder;
using mqtt::test::Watched;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class ADispatch : public ScriptedSession {};

TEST_F(ADispatch, CallsASubscriberForEachOfItsSubscriptionsInTheirOrderWithItsTag) {
    std::vector<int> tags;
    auto const keep = [&](int tag, auto&&...) { tags.push_back(tag); };
    MessageRecorder one(keep);
    MessageRecorder two(keep);
    auto const receivedTags = [&] {
        tags.clear();
        send("a", "x");
        receiveAll();
        return tags;
    };
    subscribe("a", two, 7);
    subscribe("a", one, INT32_MIN);
    subscribe("a", two, 0);
    subscribe("a", one, INT32_MAX);
    EXPECT_THAT(receivedTags(), ElementsAre(7, INT32_MIN, 0, INT32_MAX));
    EXPECT_EQ(client->unsubscribe("a", &two), Error::NOT_FOUND);
    EXPECT_THAT(receivedTags(), ElementsAre(INT32_MIN, 0, INT32_MAX)) << "the first one is ended";
    EXPECT_EQ(client->unsubscribe("a", &two), Error::NOT_FOUND);
    EXPECT_THAT(receivedTags(), ElementsAre(INT32_MIN, INT32_MAX));
    client->release(&one);
}

TEST_F(ADispatch, GivesTheParsedTopicOfTheMessageAndNotThePattern) {
    unsigned levels = 0;
    MessageRecorder recorder([&](int, Topic const& topic, auto&&) { levels = topic.size(); });
    subscribe("#", recorder);
    send("/a//b/", "x");
    receiveAll();
    client->release(&recorder);
    EXPECT_EQ(recorder.deliveries().front(), (Delivery{0, "a//b", "x"}));
    EXPECT_EQ(levels, 3U);
}

TEST_F(ADispatch, HandsOverAnyPayloadAtAnyQosRetainedOrNot) {
    std::string everyByte;
    for (int i = 0; i < 512; ++i) {
        everyByte.push_back(static_cast<char>(i));
    }
    Strings const payloads{everyByte, std::string(3, '\0'), "", std::string(3'000'000, 'x')};
    subscribe("a", first, 6);
    for (auto const& payload : payloads) {
        send("a", payload);
    }
    ASSERT_TRUE(server.publish("a", payloads[0], 0, true));
    ASSERT_TRUE(server.publish("a", payloads[1], 1, false));
    receiveAll();
    auto expected = payloads;
    expected.insert(expected.end(), {payloads[0], payloads[1]});
    EXPECT_TRUE(first.payloads() == expected);
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
                make(*client, other);
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
        receiveAll();
        EXPECT_EQ(other.payloads(), received);
        EXPECT_THAT(last.payloads(), ElementsAre("1", "2"));
        for (auto* const recorder : {&other, &changing, &last}) {
            client->release(recorder);
        }
    }
}

class ABroker : public ScriptedSession {
protected:
    /// Subscribes again while the end of a subscription is not acknowledged. The answers to packets
    /// of the type are kept back until then.
    void subscribeAnew(std::vector<Type> const& keptBack) {
        subscribe("a", first);
        sendAll();
        server.setHook([keptBack](auto const& packet) {
            bool const isKeptBack =
                std::find(keptBack.begin(), keptBack.end(), packet.type) != keptBack.end();
            return isKeptBack ? support::ScriptedServer::Reaction::HOLD
                              : support::ScriptedServer::Reaction::ANSWER;
        });
        ASSERT_EQ(client->unsubscribe("a", &first), Error::SUCCESS);
        subscribe("a", second);
        sendAll();
    }
};

TEST_F(ABroker, ThatEndsASubscriptionBehindALaterOneGetsThatAgain) {
    subscribeAnew({Type::UNSUBSCRIBE});
    server.release();
    ASSERT_TRUE(server.waitForPackets(Type::SUBSCRIBE, 3));
    EXPECT_EQ(topicsIn(Type::SUBSCRIBE, 1), (Strings{"a", "a", "a"}));
}

TEST_F(ABroker, ThatKeepsTheOrderGetsEachSubscriptionOnce) {
    subscribeAnew({Type::UNSUBSCRIBE, Type::SUBSCRIBE});
    server.release();
    receiveAll();
    sendAll();
    EXPECT_EQ(topicsIn(Type::SUBSCRIBE, 1), (Strings{"a", "a", "marker/1"}));
}

TEST_F(ABroker, GetsNoSubscriptionAgainThatHasEndedMeanwhile) {
    subscribeAnew({Type::UNSUBSCRIBE});
    ASSERT_EQ(client->unsubscribe("a", &second), Error::SUCCESS);
    server.release();
    receiveAll();
    sendAll();
    EXPECT_EQ(topicsIn(Type::SUBSCRIBE, 1), (Strings{"a", "a", "marker/1"}));
}

class ARelease : public ScriptedSession {};

TEST_F(ARelease, DropsAllRegistrationsOfASubscriberUntilItSubscribesAgain) {
    subscribe("a", first);
    subscribe("a", first);
    subscribe("b/#", first);
    subscribe("c", second, 2);
    subscribe("c", first);
    client->release(&first);
    client->release(&third); // unknown
    client->release(nullptr);
    sendAll();
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), ElementsAre("a", "b/#"));
    for (char const* const topic : {"a", "b/x", "c"}) {
        send(topic, topic);
    }
    receiveAll();
    EXPECT_THAT(first.deliveries(), IsEmpty());
    EXPECT_THAT(second.deliveries(), ElementsAre(Delivery{2, "c", "c"}));
    for (char const* const topic : {"a", "b/#", "c"}) {
        EXPECT_EQ(client->unsubscribe(topic, &first), Error::NOT_FOUND) << topic;
    }
    subscribe("a", first);
    send("a", "x");
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre("x"));
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
    subscribe("a", second);
    send("a", "x");
    ASSERT_TRUE(entered.waitFor(isSet));
    client->release(&second);
    mqtt::test::set(released);
    client->release(&slow);
    EXPECT_TRUE(inTime);
    receiveAll();
    EXPECT_THAT(second.deliveries(), IsEmpty()) << "it was released before its call";
}

TEST_F(ARelease, LetsASubscriberDestroyItselfInsideItsOwnCall) {
    std::atomic<int> calls{0};
    std::unique_ptr<MessageRecorder> self;
    self = std::make_unique<MessageRecorder>([&](auto&&...) {
        ++calls;
        client->release(self.get());
        self.reset();
    });
    subscribe("a", *self);
    subscribe("b", *self);
    subscribe("a", *self);
    subscribe("a", first);
    send("a", "1");
    send("b", "x");
    send("a", "2");
    receiveAll();
    EXPECT_EQ(self, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(first.payloads(), ElementsAre("1", "2"));
}

} // namespace
