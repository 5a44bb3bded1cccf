// Making, subscribing and publishing an untyped endpoint.

#include "data/an_endpoint.hpp"

#include <gmock/gmock.h>

#include <future>
#include <type_traits>

namespace {

using mqtt::MqttClient;
using mqtt::MqttDataBase;
using mqtt::Topic;
using support::StandIn;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Call = StandIn::Call;
using Error = MqttClient::Error;
using Lock = MqttDataBase::Lock;
using Operation = StandIn::Operation;

static_assert(!std::is_convertible_v<MqttDataBase*, MqttClient::Subscriber*>,
              "an endpoint is no subscriber to other classes");
static_assert(std::is_abstract_v<MqttDataBase>);
static_assert(
    std::is_same_v<decltype(std::declval<MqttDataBase const&>().mutex()), std::recursive_mutex&>);

void expectCall(Call const& call, std::string const& topic, std::string const& payload, int qos,
                bool retain) {
    EXPECT_EQ(call.topic, topic);
    EXPECT_EQ(call.payload, payload);
    EXPECT_EQ(call.qos, qos);
    EXPECT_EQ(call.retain, retain);
}

// Making and copying

TEST_F(AnEndpoint, SubscribesToNothingWhenItIsMade) {
    Endpoint const plain(*client_, "a/b");
    Endpoint const withNoTopic(*client_, "a/b", 1, false, Topic());
    Endpoint withAnEmptyLevel(*client_, "a/b", 2, true, "/");
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
    deliver("a/b", "x");
    EXPECT_THAT(endpoint.events, IsEmpty());
    Lock lock(withAnEmptyLevel.mutex());
    EXPECT_EQ(withAnEmptyLevel.unsubscribe(lock), Error::NOT_FOUND);
}

TEST_F(AnEndpoint, MadeWithATopicToListenOnSubscribesItAtOnceAsIdentifierZero) {
    Endpoint listening(*client_, "a/b", 2, true, "c/#");
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("c/#"));
    deliver("c/d", "x");
    EXPECT_THAT(listening.events, ElementsAre("read c/d x", "notify 0"));
}

TEST_F(AnEndpoint, CopiedWhileSubscribedSubscribesTheCopyAtOnceAsIdentifierZero) {
    endpoint.subscribeTopic = "c/d";
    ASSERT_EQ(subscribe(endpoint, 7), Error::SUCCESS);
    Endpoint copy(endpoint);
    deliver("c/d", "x");
    EXPECT_THAT(endpoint.events, ElementsAre("read c/d x", "notify 7"));
    EXPECT_THAT(copy.events, ElementsAre("read c/d x", "notify 0"));
}

TEST_F(AnEndpoint, CopiedUnsubscribedPublishesAsTheOriginalDoesAndIsNotSubscribed) {
    Endpoint copy(endpoint);
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
    copy.value = "x";
    copy.publish();
    expectCall(script_->calls(Operation::PUBLISH).front(), "a/b", "x@a/b", 2, true);
    EXPECT_NE(&copy.mutex(), &endpoint.mutex());
    Lock lock(copy.mutex());
    EXPECT_EQ(copy.unsubscribe(lock), Error::NOT_FOUND);
}

// Subscribing

TEST_F(AnEndpoint, SubscribesWhereItPublishesOrWhereItsOwnKindSays) {
    EXPECT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    endpoint.subscribeTopic = "c/+";
    EXPECT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a/b", "c/+"));
}

TEST_F(AnEndpoint, StaysSubscribedToItsOldTopicUntilItSubscribesAgain) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    endpoint.setTopicBase("c");
    EXPECT_EQ(endpoint.topicBase(), Topic("c"));
    deliver("c", "new");
    deliver("a/b", "old");
    EXPECT_THAT(endpoint.events, ElementsAre("read a/b old", "notify 3"));
    Lock lock(endpoint.mutex());
    EXPECT_EQ(endpoint.unsubscribe(lock), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a/b"));
    ASSERT_EQ(subscribe(endpoint, 4), Error::SUCCESS);
    deliver("c", "new");
    EXPECT_EQ(endpoint.events.back(), "notify 4");
}

TEST_F(AnEndpoint, TakesNoLockToReplaceItsTopic) {
    Lock const lock(endpoint.mutex());
    auto replaced = std::async(std::launch::async, [&] { endpoint.setTopicBase("c"); });
    EXPECT_EQ(replaced.wait_for(mqtt::test::DEADLINE), std::future_status::ready);
}

TEST_F(AnEndpoint, PassesOnTheResultsOfTheClient) {
    endpoint.setTopicBase("a/#/b");
    EXPECT_EQ(subscribe(endpoint, 3), Error::INVALID_PARAMETER);
    endpoint.setTopicBase("a/b");
    Lock lock(endpoint.mutex());
    EXPECT_EQ(endpoint.unsubscribe(lock), Error::NOT_FOUND);
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    lock.lock();
    EXPECT_EQ(endpoint.unsubscribe(lock), Error::SUCCESS);
    deliver("a/b", "x");
    EXPECT_THAT(endpoint.events, IsEmpty());
    lock.lock();
    EXPECT_EQ(endpoint.unsubscribeWait(lock), Error::NOT_FOUND);
    script_->answer(Operation::PUBLISH, {3, 9});
    EXPECT_EQ(endpoint.clean(), Error::INVALID_PARAMETER);
    EXPECT_EQ(endpoint.cleanWait(), Error::PAYLOAD_SIZE);
}

// Publishing

TEST_F(AnEndpoint, PublishesAndCleansWithItsTopicQosAndRetainedFlag) {
    Endpoint plain(*client_, "p"); // QoS 0, not retained
    Endpoint modest(*client_, "c", 1, false);
    script_->setAcknowledging(false); // what does not wait returns
    endpoint.value = "x";
    endpoint.publish();
    Lock lock(endpoint.mutex());
    endpoint.publish(lock);
    plain.publish();
    EXPECT_EQ(endpoint.clean(), Error::SUCCESS);
    script_->setAcknowledging(true);
    EXPECT_EQ(modest.cleanWait(), Error::SUCCESS);
    endpoint.publishTopic = "c/d";
    endpoint.publishWait();
    EXPECT_EQ(endpoint.clean(), Error::SUCCESS);
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_THAT(calls, SizeIs(7));
    expectCall(calls[0], "a/b", "x@a/b", 2, true);
    expectCall(calls[1], "a/b", "x@a/b", 2, true);
    expectCall(calls[2], "p", "@p", 0, false);
    expectCall(calls[3], "a/b", "", 2, true);
    expectCall(calls[4], "c", "", 1, false);
    expectCall(calls[5], "c/d", "x@c/d", 2, true);
    expectCall(calls[6], "c/d", "", 2, true);
    EXPECT_EQ(endpoint.value, "x");
}

// The will

TEST_F(AnEndpoint, MakesItsValueTheWillOfADisconnectedClient) {
    EXPECT_EQ(endpoint.setCurrentValueAsWill(), Error::CONNECTION_PENDING);
    EXPECT_EQ(script_->count(Operation::WILL_SET), 0U);
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    endpoint.value = "gone";
    endpoint.publishTopic = "c/d";
    EXPECT_EQ(endpoint.setCurrentValueAsWill(), Error::SUCCESS);
    Endpoint modest(*client_, "e", 1, false);
    EXPECT_EQ(modest.setCurrentValueAsWill(), Error::SUCCESS);
    auto const calls = script_->calls(Operation::WILL_SET);
    ASSERT_THAT(calls, SizeIs(2));
    expectCall(calls[0], "c/d", "gone@c/d", 2, true);
    expectCall(calls[1], "e", "@e", 1, false);
    EXPECT_TRUE(isFree(endpoint));
}

} // namespace
