// Typed endpoints: publishing, subscribing, copies, and their end.

#include "data/an_endpoint.hpp"
#include "data/every_kind.hpp"
#include "mqtt/test/watched.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using mqtt::Link;
using mqtt::MqttData;
using mqtt::test::isSet;
using mqtt::test::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Error = mqtt::MqttClient::Error;
using Lock = mqtt::MqttDataBase::Lock;
using Operation = support::StandIn::Operation;

static_assert(std::is_base_of_v<mqtt::MqttDataBase, MqttData<Link>>);
static_assert(!std::has_virtual_destructor_v<MqttData<Link>::Subscriber>);
static_assert(std::is_same_v<decltype(MqttData<Link>::subscriber), MqttData<Link>::Subscriber*>);

/// A subscriber of links that records its calls: "<link> <identifier>", or
/// "<link> empty <identifier>".
class LinkRecorder : public mqtt::test::Recording<std::string, Link const&>,
                     public MqttData<Link>::Subscriber {
public:
    explicit LinkRecorder(Hook hook = {}) : Recording(std::move(hook)) {}

    void onMqttData(Link const& link, bool empty, int id) override {
        add(link.id + (empty ? " empty " : " ") + std::to_string(id), link);
    }
};

class ATypedEndpoint : public AClientOnAScript {
protected:
    ATypedEndpoint() { connect(); }

    void deliverPayload(std::string const& payload) {
        script_->deliver("a/b", payload);
        letTheStepEnd();
    }
    void deliver(std::string const& id) { deliverPayload(R"({"@id": ")" + id + R"("})"); }

    MqttData<Link> endpoint{*client_, "a/b"};
};

/// Long enough to see that a call waits. If a machine is slow, a defect may pass unseen; a correct
/// endpoint never fails.
constexpr std::chrono::milliseconds NOTICEABLE_WAIT{300};

// Publishing

TEST_F(ATypedEndpoint, PublishesOnTheTopicAndWithTheQosOfItsType) {
    MqttData<conv::CommunicationStatus>(*client_, "a/b").publish();
    MqttData<conv::Identification>(*client_, "a/b").publish();
    MqttData<conv::ServiceStatus>(*client_, "a/b").publish();
    MqttData<Link>(*client_, "a/b").publish();
    MqttData<std::vector<Link>>(*client_, "a/b").publish();
    mqtt::MqttDataCollection<Link>(*client_, "a/b").publish();
    MqttData<sample::EveryKind>(*client_, "a/b").publish();
    MqttData<sample::Measurement>(*client_, "a/b").publish();
    MqttData<sample::Point>(*client_, "a/b").publish();
    std::vector<std::string> publications;
    for (auto const& call : script_->calls(Operation::PUBLISH)) {
        publications.push_back(call.topic + " " + std::to_string(call.qos)
                               + (call.retain ? " retained" : ""));
    }
    EXPECT_THAT(publications,
                ElementsAre("a/b/communication 2 retained", "a/b/identification 2 retained",
                            "a/b/status 2 retained", "a/b 2 retained", "a/b 2 retained",
                            "a/b 2 retained", "a/b/every/kind 1", "a/b/measurement 2 retained",
                            "a/b 0"));
    EXPECT_STREQ(MqttData<conv::Identification>::TOPIC_SUFFIX, "identification");
    EXPECT_STREQ(MqttData<conv::ServiceStatus>::TOPIC_SUFFIX, "status");
    EXPECT_STREQ(MqttData<sample::EveryKind>::TOPIC_SUFFIX, "every/kind");
}

// Subscribing

TEST_F(ATypedEndpoint, TellsItsSubscriberOfEveryValueAndOfAnEmptyPayload) {
    LinkRecorder recorder;
    EXPECT_EQ(endpoint.subscribe(&recorder, -7), Error::SUCCESS);
    deliver("x");
    deliverPayload("{"); // cannot be read
    EXPECT_EQ(endpoint.value.id, "x");
    deliverPayload("");
    deliver("y");
    EXPECT_THAT(recorder.calls(), ElementsAre("x -7", "x empty -7", "y -7"));
    EXPECT_EQ(endpoint.value.id, "y");
}

TEST_F(ATypedEndpoint, SubscribedTwiceTellsTwiceAndUnsubscribedNoMore) {
    LinkRecorder recorder;
    ASSERT_EQ(endpoint.subscribe(&recorder, 1), Error::SUCCESS);
    ASSERT_EQ(endpoint.subscribe(&recorder, 2), Error::SUCCESS);
    deliver("x");
    EXPECT_THAT(recorder.calls(), ElementsAre("x 1", "x 2"));
    EXPECT_EQ(endpoint.unsubscribe(), Error::NOT_FOUND) << "the second registration is left";
    EXPECT_EQ(endpoint.unsubscribe(), Error::SUCCESS);
    EXPECT_EQ(endpoint.subscriber, nullptr);
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(1));
    deliver("y");
    EXPECT_THAT(recorder.calls(), SizeIs(2));
    EXPECT_EQ(endpoint.value.id, "x");
}

TEST_F(ATypedEndpoint, GivesItsSubscriberACopyAndHoldsNoLock) {
    std::string seen;
    LinkRecorder recorder([&](Link const& link) {
        EXPECT_TRUE(isFree(endpoint));
        Lock const lock(endpoint.mutex());
        endpoint.value.id = "changed";
        seen = link.id;
    });
    ASSERT_EQ(endpoint.subscribe(&recorder, 1), Error::SUCCESS);
    deliver("x");
    EXPECT_EQ(seen, "x");
    EXPECT_EQ(endpoint.value.id, "changed");
}

TEST_F(ATypedEndpoint, RefusesToNotifyWithoutItsLock) {
    struct Probe : MqttData<Link> {
        using MqttData<Link>::MqttData;
        using MqttData<Link>::notify;
    };
    LinkRecorder recorder;
    Probe probe(*client_, "c");
    probe.subscriber = &recorder;
    Lock lock(probe.mutex(), std::defer_lock);
    expectNotPermitted([&] { probe.notify(false, 1, lock); });
    EXPECT_THAT(recorder.calls(), IsEmpty());
    probe.subscriber = nullptr;
}

// Copies

TEST_F(ATypedEndpoint, CopiedKeepsValueAndSubscriberAndSubscribesAsIdentifierZero) {
    LinkRecorder recorder;
    endpoint.value.id = "x";
    {
        MqttData<Link> unsubscribed(endpoint);
        EXPECT_EQ(unsubscribed.value.id, "x");
        EXPECT_EQ(unsubscribed.unsubscribe(), Error::NOT_FOUND);
    }
    ASSERT_EQ(endpoint.subscribe(&recorder, 7), Error::SUCCESS);
    MqttData<Link> const copy(endpoint);
    EXPECT_EQ(copy.subscriber, &recorder);
    deliver("y");
    EXPECT_THAT(recorder.calls(), ElementsAre("y 7", "y 0"));
    EXPECT_EQ(copy.value.id, "y");
}

TEST_F(ATypedEndpoint, IsNotCopiedWhileItsValueIsWritten) {
    Lock lock(endpoint.mutex());
    Watched<bool> copied;
    auto copying = std::async(std::launch::async, [&] {
        MqttData<Link> const copy(endpoint);
        mqtt::test::set(copied);
        return copy.value.id;
    });
    endpoint.value.id = "half";
    EXPECT_FALSE(copied.waitFor(isSet, NOTICEABLE_WAIT));
    endpoint.value.id = "whole";
    lock.unlock();
    EXPECT_EQ(copying.get(), "whole");
}

TEST_F(ATypedEndpoint, CopiesACollectionToo) {
    mqtt::MqttDataCollection<Link> original(*client_, "c");
    ASSERT_EQ(original.subscribe(nullptr, 0), Error::SUCCESS);
    original.value.push_back({"x"});
    mqtt::MqttDataCollection<Link> const copy(original);
    EXPECT_THAT(copy.value, SizeIs(1));
    script_->deliver("c", R"({"members@count": 0, "members": []})");
    letTheStepEnd();
    EXPECT_THAT(copy.value, IsEmpty());
}

// The end

TEST_F(ATypedEndpoint, DestroyedOrReleasedIsNotRegisteredAnyMore) {
    LinkRecorder recorder;
    {
        MqttData<Link> passing(*client_, "a/b");
        ASSERT_EQ(passing.subscribe(&recorder, 1), Error::SUCCESS);
        ASSERT_EQ(passing.subscribe(&recorder, 2), Error::SUCCESS);
    }
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(1));
    ASSERT_EQ(endpoint.subscribe(&recorder, 3), Error::SUCCESS);
    endpoint.release();
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(2));
    deliver("x");
    EXPECT_THAT(recorder.calls(), IsEmpty());
}

TEST_F(ATypedEndpoint, MayBeDestroyedByItsOwnSubscriber) {
    std::unique_ptr<MqttData<Link>> passing;
    std::string seen;
    LinkRecorder recorder([&](Link const& link) {
        passing.reset();
        seen = link.id;
    });
    LinkRecorder other;
    ASSERT_EQ(endpoint.subscribe(&other, 2), Error::SUCCESS);
    passing = std::make_unique<MqttData<Link>>(*client_, "a/b");
    ASSERT_EQ(passing->subscribe(&recorder, 1), Error::SUCCESS);
    ASSERT_EQ(passing->subscribe(&recorder, 1), Error::SUCCESS);
    deliver("x");
    EXPECT_EQ(passing, nullptr);
    EXPECT_EQ(seen, "x");
    deliver("y");
    EXPECT_THAT(recorder.calls(), ElementsAre("x 1"));
    EXPECT_THAT(other.calls(), ElementsAre("x 2", "y 2"));
}

} // namespace
