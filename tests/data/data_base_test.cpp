#include "data/an_endpoint.hpp"

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <system_error>
#include <type_traits>

namespace {

using mqtt::MqttClient;
using mqtt::MqttDataBase;
using mqtt::Topic;
using support::StandIn;
using support::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Error = MqttClient::Error;
using Lock = MqttDataBase::Lock;
using Operation = StandIn::Operation;

/// Long enough to see that something waits; it never makes a right endpoint fail.
constexpr std::chrono::milliseconds A_WHILE{300};

static_assert(!std::is_convertible_v<MqttDataBase*, MqttClient::Subscriber*>,
              "nobody outside may take an endpoint for a subscriber");
static_assert(std::is_abstract_v<MqttDataBase>);
static_assert(
    std::is_same_v<decltype(std::declval<MqttDataBase const&>().mutex()), std::recursive_mutex&>);

bool isSet(bool value) {
    return value;
}

// Making and copying

TEST_F(AnEndpoint, SubscribesToNothingWhenItIsMade) {
    Endpoint const plain(*client_, "a/b");
    Endpoint const withNoTopic(*client_, "a/b", 1, false, Topic());
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
    deliver("a/b", "x");
    EXPECT_THAT(endpoint.events, IsEmpty());
}

TEST_F(AnEndpoint, MadeWithATopicToListenOnSubscribesItAtOnceAsIdentifierZero) {
    Endpoint listening(*client_, "a/b", 2, true, "c/#");
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("c/#"));
    deliver("c/d", "x");
    EXPECT_THAT(listening.events, ElementsAre("read c/d x", "tell 0"));
}

TEST_F(AnEndpoint, MadeWithOneEmptyLevelToListenOnIsMadeAllTheSame) {
    Endpoint listening(*client_, "a/b", 2, true, "/");
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
    Lock lock(listening.mutex());
    EXPECT_EQ(listening.unsubscribe(lock), Error::NOT_FOUND);
}

TEST_F(AnEndpoint, MadeOfATopicAlonePublishesAtQosZeroAndNotRetained) {
    Endpoint plain(*client_, "a/b");
    plain.publish();
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].qos, 0);
    EXPECT_FALSE(calls[0].retain);
}

TEST_F(AnEndpoint, CopiedWhileSubscribedSubscribesTheCopyAtOnceAsIdentifierZero) {
    endpoint.subscribeTopic = "c/d";
    ASSERT_EQ(subscribe(endpoint, 7), Error::SUCCESS);
    Endpoint copy(endpoint);
    deliver("c/d", "x");
    EXPECT_THAT(endpoint.events, ElementsAre("read c/d x", "tell 7"));
    EXPECT_THAT(copy.events, ElementsAre("read c/d x", "tell 0"));
}

TEST_F(AnEndpoint, CopiedUnsubscribedLeavesTheCopySo) {
    Endpoint copy(endpoint);
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
    Lock lock(copy.mutex());
    EXPECT_EQ(copy.unsubscribe(lock), Error::NOT_FOUND);
}

TEST_F(AnEndpoint, CopiedPublishesAsTheOriginalDoes) {
    Endpoint copy(endpoint);
    copy.value = "x";
    copy.publish();
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].topic, "a/b");
    EXPECT_EQ(calls[0].payload, "x@a/b");
    EXPECT_EQ(calls[0].qos, 2);
    EXPECT_TRUE(calls[0].retain);
    EXPECT_NE(&copy.mutex(), &endpoint.mutex());
}

// Subscribing

TEST_F(AnEndpoint, SubscribesWhereItPublishes) {
    EXPECT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a/b"));
}

TEST_F(AnEndpoint, SubscribesWhereItsOwnKindSays) {
    endpoint.subscribeTopic = "c/+";
    EXPECT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("c/+"));
    Lock lock(endpoint.mutex());
    EXPECT_EQ(endpoint.unsubscribe(lock), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("c/+"));
}

TEST_F(AnEndpoint, PassesOnWhyItCouldNotBeSubscribed) {
    endpoint.setTopicBase("a/#/b");
    EXPECT_EQ(subscribe(endpoint, 3), Error::INVALID_PARAMETER);
    endpoint.setTopicBase("\xff");
    EXPECT_EQ(subscribe(endpoint, 3), Error{18});
}

TEST_F(AnEndpoint, StaysSubscribedToItsOldTopicUntilItSubscribesAnew) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    endpoint.setTopicBase("c");
    EXPECT_EQ(endpoint.topicBase(), Topic("c"));
    deliver("c", "new");
    deliver("a/b", "old");
    EXPECT_THAT(endpoint.events, ElementsAre("read a/b old", "tell 3"));
    Lock lock(endpoint.mutex());
    EXPECT_EQ(endpoint.unsubscribe(lock), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a/b"));
    ASSERT_EQ(subscribe(endpoint, 4), Error::SUCCESS);
    deliver("c", "new");
    EXPECT_EQ(endpoint.events.back(), "tell 4");
}

TEST_F(AnEndpoint, TakesNoLockToReplaceItsTopic) {
    Lock const lock(endpoint.mutex());
    auto replaced = std::async(std::launch::async, [&] { endpoint.setTopicBase("c"); });
    EXPECT_EQ(replaced.wait_for(support::DEADLINE), std::future_status::ready);
}

TEST_F(AnEndpoint, PassesOnWhatBecameOfItsUnsubscription) {
    Lock lock(endpoint.mutex());
    EXPECT_EQ(endpoint.unsubscribe(lock), Error::NOT_FOUND);
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    lock.lock();
    EXPECT_EQ(endpoint.unsubscribe(lock), Error::SUCCESS);
    deliver("a/b", "x");
    EXPECT_THAT(endpoint.events, IsEmpty());
    lock.lock();
    EXPECT_EQ(endpoint.unsubscribeWait(lock), Error::NOT_FOUND);
}

TEST_F(AnEndpoint, WaitsForTheEndOfItsSubscriptionWhenAskedTo) {
    script_->setAcknowledging(false);
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    Watched<bool> returned;
    auto result = std::async(std::launch::async, [&] {
        Lock lock(endpoint.mutex());
        auto const error = endpoint.unsubscribeWait(lock);
        returned.change([](bool& value) { value = true; });
        return error;
    });
    ASSERT_TRUE(script_->waitForCalls(Operation::UNSUBSCRIBE, 1));
    EXPECT_FALSE(returned.waitFor(isSet, A_WHILE));
    int const mid = script_->calls(Operation::UNSUBSCRIBE)[0].mid;
    script_->runInLoop([&](auto& object) { object.on_unsubscribe(mid); });
    auto const error = result.get();
    // A machine that is busy enough lets the five seconds pass all the same.
    EXPECT_TRUE(error == Error::SUCCESS || error == Error::TIMEOUT) << error;
}

TEST_F(AnEndpoint, LeavesNothingBehindWhenItIsDestroyed) {
    {
        Endpoint passing(*client_, "c", 2, true, "c");
        ASSERT_EQ(subscribe(passing, 1), Error::SUCCESS);
    }
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("c"));
    deliver("c", "x");
}

// Publishing

TEST_F(AnEndpoint, PublishesItsValueWithItsQosAndRetainedFlag) {
    endpoint.value = "x";
    endpoint.publish();
    Lock lock(endpoint.mutex());
    endpoint.publish(lock);
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_THAT(calls, SizeIs(2));
    for (auto const& call : calls) {
        EXPECT_EQ(call.topic, "a/b");
        EXPECT_EQ(call.payload, "x@a/b");
        EXPECT_EQ(call.qos, 2);
        EXPECT_TRUE(call.retain);
    }
}

TEST_F(AnEndpoint, PublishesWhereItsOwnKindSays) {
    endpoint.publishTopic = "c/d";
    endpoint.value = "x";
    endpoint.publish();
    endpoint.publishWait();
    EXPECT_EQ(endpoint.clean(), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("c/d", "c/d", "c/d"));
    EXPECT_THAT(published(), ElementsAre("x@c/d", "x@c/d", ""));
}

TEST_F(AnEndpoint, DoesNotWaitForTheEndOfAPublication) {
    script_->setAcknowledging(false);
    endpoint.publish();
    EXPECT_EQ(endpoint.clean(), Error::SUCCESS);
    EXPECT_EQ(script_->count(Operation::PUBLISH), 2U);
}

using Waiting = Named<void(MqttDataBase&)>;

class AnEndpointAskedToWait : public AnEndpoint, public testing::WithParamInterface<Waiting> {};

INSTANTIATE_TEST_SUITE_P(
    With, AnEndpointAskedToWait,
    testing::Values(Waiting{"PublishWait", [](auto& endpoint) { endpoint.publishWait(); }},
                    Waiting{"PublishWaitAndLock",
                            [](auto& endpoint) {
                                Lock lock(endpoint.mutex());
                                endpoint.publishWait(lock);
                            }},
                    Waiting{"CleanWait", [](auto& endpoint) { endpoint.cleanWait(); }},
                    Waiting{"CleanAndLock",
                            [](auto& endpoint) {
                                Lock lock(endpoint.mutex());
                                endpoint.clean(true, lock);
                            }}),
    nameOf<Waiting>);

TEST_P(AnEndpointAskedToWait, ReturnsWhenItsPublicationIsDone) {
    script_->setAcknowledging(false);
    Watched<bool> returned;
    auto call = std::async(std::launch::async, [&] {
        GetParam().call(endpoint);
        returned.change([](bool& value) { value = true; });
    });
    ASSERT_TRUE(script_->waitForCalls(Operation::PUBLISH, 1));
    EXPECT_FALSE(returned.waitFor(isSet, A_WHILE));
    auto const publication = script_->calls(Operation::PUBLISH)[0];
    EXPECT_EQ(publication.qos, 2);
    EXPECT_TRUE(publication.retain);
    script_->runInLoop([&](auto& object) { object.on_publish(publication.mid); });
    EXPECT_EQ(call.wait_for(support::DEADLINE), std::future_status::ready);
}

TEST_F(AnEndpoint, IsCleanedByAnEmptyPayloadWithItsQosAndRetainedFlag) {
    Endpoint modest(*client_, "c", 1, false);
    endpoint.value = "x";
    EXPECT_EQ(endpoint.clean(), Error::SUCCESS);
    EXPECT_EQ(modest.cleanWait(), Error::SUCCESS);
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0].topic, "a/b");
    EXPECT_EQ(calls[0].payload, "");
    EXPECT_EQ(calls[0].qos, 2);
    EXPECT_TRUE(calls[0].retain);
    EXPECT_EQ(calls[1].topic, "c");
    EXPECT_EQ(calls[1].qos, 1);
    EXPECT_FALSE(calls[1].retain);
    EXPECT_EQ(endpoint.value, "x");
}

TEST_F(AnEndpoint, PassesOnWhyItCouldNotBeCleaned) {
    script_->answer(Operation::PUBLISH, {3, 9});
    EXPECT_EQ(endpoint.clean(), Error::INVALID_PARAMETER);
    EXPECT_EQ(endpoint.cleanWait(), Error::PAYLOAD_SIZE);
}

TEST_F(AnEndpoint, CannotChangeTheWillOfAConnectedClient) {
    EXPECT_EQ(endpoint.setCurrentValueAsWill(), Error::CONNECTION_PENDING);
    EXPECT_EQ(script_->count(Operation::WILL_SET), 0U);
}

TEST_F(AnEndpoint, MakesItsValueTheWill) {
    ASSERT_EQ(client_->disconnect(30), Error::SUCCESS);
    endpoint.value = "gone";
    endpoint.publishTopic = "c/d";
    EXPECT_EQ(endpoint.setCurrentValueAsWill(), Error::SUCCESS);
    Endpoint modest(*client_, "e", 1, false);
    EXPECT_EQ(modest.setCurrentValueAsWill(), Error::SUCCESS);
    auto const calls = script_->calls(Operation::WILL_SET);
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0].topic, "c/d");
    EXPECT_EQ(calls[0].payload, "gone@c/d");
    EXPECT_EQ(calls[0].qos, 2);
    EXPECT_TRUE(calls[0].retain);
    EXPECT_EQ(calls[1].qos, 1);
    EXPECT_FALSE(calls[1].retain);
    EXPECT_TRUE(isFree(endpoint));
}

} // namespace
