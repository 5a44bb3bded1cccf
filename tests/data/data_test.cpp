#include "data/a_typed_endpoint.hpp"

#include <mqtt/payloads.hpp>

#include <gmock/gmock.h>

#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

namespace {

using mqtt::Link;
using mqtt::MqttData;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Error = mqtt::MqttClient::Error;
using Lock = mqtt::MqttDataBase::Lock;
using Operation = support::StandIn::Operation;
using Strings = std::vector<std::string>;

static_assert(std::is_base_of_v<mqtt::MqttDataBase, MqttData<Link>>);
static_assert(!std::has_virtual_destructor_v<MqttData<Link>::Subscriber>);
static_assert(std::is_same_v<decltype(MqttData<Link>::subscriber), MqttData<Link>::Subscriber*>);

TEST_F(ATypedEndpoint, IsMadeWithoutSubscriberOrSubscription) {
    EXPECT_EQ(endpoint.subscriber, nullptr);
    EXPECT_EQ(endpoint.value.id, "");
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
}

TEST_F(ATypedEndpoint, PublishesAtQosTwoAndRetainedOnTheTopicOfItsType) {
    MqttData<conv::CommunicationStatus>(*client_, "a/b").publish();
    MqttData<conv::Identification>(*client_, "a/b").publish();
    MqttData<conv::ServiceStatus>(*client_, "a/b").publish();
    MqttData<Link>(*client_, "a/b").publish();
    MqttData<std::vector<Link>>(*client_, "a/b").publish();
    mqtt::MqttDataCollection<Link>(*client_, "a/b").publish();
    Strings topics;
    for (auto const& call : script_->calls(Operation::PUBLISH)) {
        topics.push_back(call.topic);
        EXPECT_EQ(call.qos, 2) << call.topic;
        EXPECT_TRUE(call.retain) << call.topic;
    }
    EXPECT_THAT(topics, ElementsAre("a/b/communication", "a/b/identification", "a/b/status", "a/b",
                                    "a/b", "a/b"));
}

TEST_F(ATypedEndpoint, OffersTheSuffixOfItsTopic) {
    EXPECT_STREQ(MqttData<conv::Identification>::TOPIC_SUFFIX, "identification");
    EXPECT_STREQ(MqttData<conv::ServiceStatus>::TOPIC_SUFFIX, "status");
}

TEST_F(ATypedEndpoint, PublishesTheValueThatItsOwnerWrote) {
    Lock lock(endpoint.mutex());
    endpoint.value.id = "c/d";
    endpoint.publish(lock);
    EXPECT_THAT(published(), ElementsAre("{\n  \"@id\": \"c/d\"\n}"));
}

TEST_F(ATypedEndpoint, TellsItsSubscriberOfEveryValue) {
    Reader reader;
    EXPECT_EQ(endpoint.subscribe(&reader, -7), Error::SUCCESS);
    deliver("x");
    deliver("y");
    EXPECT_THAT(reader.told(), ElementsAre("x -7", "y -7"));
    EXPECT_EQ(endpoint.value.id, "y");
}

TEST_F(ATypedEndpoint, TakesOverValuesWithoutASubscriberToo) {
    ASSERT_EQ(endpoint.subscribe(nullptr, 0), Error::SUCCESS);
    deliver("x");
    EXPECT_EQ(endpoint.value.id, "x");
}

TEST_F(ATypedEndpoint, TellsOfAnEmptyPayloadWithTheValueItHas) {
    Reader reader;
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    deliver("x");
    deliverNothing();
    EXPECT_THAT(reader.told(), ElementsAre("x 1", "x empty 1"));
    EXPECT_EQ(endpoint.value.id, "x");
}

TEST_F(ATypedEndpoint, TellsNobodyAnyMoreOnceUnsubscribed) {
    Reader reader;
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    EXPECT_EQ(endpoint.unsubscribe(), Error::SUCCESS);
    EXPECT_EQ(endpoint.subscriber, nullptr);
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(1));
    deliver("x");
    EXPECT_THAT(reader.told(), IsEmpty());
    EXPECT_EQ(endpoint.value.id, "");
    EXPECT_EQ(endpoint.unsubscribe(), Error::NOT_FOUND);
}

TEST_F(ATypedEndpoint, SubscribedTwiceTellsTwice) {
    Reader reader;
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    ASSERT_EQ(endpoint.subscribe(&reader, 2), Error::SUCCESS);
    deliver("x");
    EXPECT_THAT(reader.told(), ElementsAre("x 1", "x 2"));
}

TEST_F(ATypedEndpoint, HandsOutACopy) {
    std::string seen;
    Reader reader([&](Link const& link) {
        EXPECT_NE(&link, &endpoint.value);
        Lock const lock(endpoint.mutex());
        endpoint.value.id = "changed";
        seen = link.id;
    });
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    deliver("x");
    EXPECT_EQ(seen, "x");
    EXPECT_EQ(endpoint.value.id, "changed");
}

TEST_F(ATypedEndpoint, HoldsNoLockWhileItTells) {
    bool wasFree = false;
    Reader reader([&](Link const&) { wasFree = isFree(endpoint); });
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    deliver("x");
    EXPECT_TRUE(wasFree);
}

TEST_F(ATypedEndpoint, MayBeUsedByItsSubscriber) {
    Reader reader([&](Link const&) {
        endpoint.publish();
        EXPECT_EQ(endpoint.clean(), Error::SUCCESS);
        EXPECT_EQ(endpoint.unsubscribe(), Error::SUCCESS);
        EXPECT_EQ(endpoint.subscribe(&reader, 2), Error::SUCCESS);
    });
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    deliver("x");
    deliver("y");
    EXPECT_THAT(reader.told(), ElementsAre("x 1", "y 2"));
    EXPECT_THAT(published(), SizeIs(4));
}

TEST_F(ATypedEndpoint, SurvivesASubscriberThatThrows) {
    Reader reader([](Link const&) { throw 1; });
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    deliver("x");
    EXPECT_TRUE(isFree(endpoint));
    deliver("y");
    EXPECT_THAT(reader.told(), ElementsAre("x 1", "y 1"));
}

TEST_F(ATypedEndpoint, TellsNobodyOfWhatItCannotRead) {
    Reader reader;
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    deliver("x");
    script_->deliver("a/b", "{");
    letTheStepEnd();
    EXPECT_THAT(reader.told(), ElementsAre("x 1"));
    EXPECT_EQ(endpoint.value.id, "x");
}

TEST_F(ATypedEndpoint, RefusesToTellWithoutItsLock) {
    struct Probe : MqttData<Link> {
        using MqttData<Link>::MqttData;
        using MqttData<Link>::notify;
    };
    Reader reader;
    Probe probe(*client_, "c");
    probe.subscriber = &reader;
    Lock lock(probe.mutex(), std::defer_lock);
    try {
        probe.notify(false, 1, lock);
        ADD_FAILURE() << "nothing was raised";
    } catch (std::system_error const& error) {
        EXPECT_EQ(error.code(), std::errc::operation_not_permitted);
    }
    EXPECT_THAT(reader.told(), IsEmpty());
    probe.subscriber = nullptr;
}

} // namespace
