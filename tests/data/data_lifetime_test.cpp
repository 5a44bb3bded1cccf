#include "data/a_typed_endpoint.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

/// A value that says when it is copied.
struct Traced {
    Traced() = default;
    Traced(Traced const& other) : text(other.text) { events.emplace_back("value copied"); }
    Traced& operator=(Traced const&) = default;

    static inline std::vector<std::string> events;
    std::string text;
};

} // namespace

namespace mqtt {

template <>
MqttData<Traced>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic, 0, false) {}

template <>
void MqttData<Traced>::serialize(Topic const& /*topic*/, std::string& payload,
                                 Traced const& traced) {
    payload = traced.text;
}

template <>
void MqttData<Traced>::deserialize(Topic const& /*topic*/, std::string const& payload, bool empty,
                                   Traced& traced) {
    if (!empty) {
        traced.text = payload;
    }
}

} // namespace mqtt

namespace {

using mqtt::Link;
using mqtt::MqttData;
using support::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Error = mqtt::MqttClient::Error;
using Lock = mqtt::MqttDataBase::Lock;
using Operation = support::StandIn::Operation;

/// Long enough to see that something waits; it never makes a right endpoint fail.
constexpr std::chrono::milliseconds A_WHILE{300};

bool isSet(bool value) {
    return value;
}

void set(Watched<bool>& flag) {
    flag.change([](bool& value) { value = true; });
}

// Copies

TEST_F(ATypedEndpoint, CopiedKeepsValueAndSubscriberAndSubscribesAsIdentifierZero) {
    Reader reader;
    ASSERT_EQ(endpoint.subscribe(&reader, 7), Error::SUCCESS);
    deliver("x");
    MqttData<Link> const copy(endpoint);
    EXPECT_EQ(copy.value.id, "x");
    EXPECT_EQ(copy.subscriber, &reader);
    deliver("y");
    EXPECT_THAT(reader.told(), ElementsAre("x 7", "y 7", "y 0"));
    EXPECT_EQ(copy.value.id, "y");
}

TEST_F(ATypedEndpoint, CopiedUnsubscribedLeavesTheCopySo) {
    endpoint.value.id = "x";
    MqttData<Link> copy(endpoint);
    EXPECT_EQ(copy.value.id, "x");
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
    EXPECT_EQ(copy.unsubscribe(), Error::NOT_FOUND);
}

TEST_F(ATypedEndpoint, CopiedSubscribesTheCopyWhenThatIsWhole) {
    MqttData<Traced> original(*client_, "a/b");
    ASSERT_EQ(original.subscribe(nullptr, 0), Error::SUCCESS);
    // The broker hears of the first registration of a topic only.
    Lock lock(original.mutex());
    ASSERT_EQ(original.mqtt::MqttDataBase::unsubscribe(lock), Error::SUCCESS);
    Traced::events.clear();
    script_->setHook(Operation::SUBSCRIBE, [](auto const&) {
        Traced::events.emplace_back("subscribed");
        return std::optional<int>();
    });
    MqttData<Traced> const copy(original);
    EXPECT_THAT(Traced::events, ElementsAre("value copied", "subscribed"));
    script_->setHook(Operation::SUBSCRIBE, {});
}

TEST_F(ATypedEndpoint, IsNotCopiedWhileSomebodyWritesItsValue) {
    Lock lock(endpoint.mutex());
    Watched<bool> copied;
    auto copying = std::async(std::launch::async, [&] {
        MqttData<Link> const copy(endpoint);
        set(copied);
        return copy.value.id;
    });
    endpoint.value.id = "half";
    EXPECT_FALSE(copied.waitFor(isSet, A_WHILE));
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

TEST_F(ATypedEndpoint, DestroyedLeavesNothingRegistered) {
    Reader reader;
    {
        MqttData<Link> passing(*client_, "c");
        ASSERT_EQ(passing.subscribe(&reader, 1), Error::SUCCESS);
        ASSERT_EQ(passing.subscribe(&reader, 2), Error::SUCCESS);
    }
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(1));
    deliver("x", "c");
    EXPECT_THAT(reader.told(), IsEmpty());
}

TEST_F(ATypedEndpoint, MayBeDestroyedByItsOwnSubscriber) {
    std::unique_ptr<MqttData<Link>> passing;
    std::string seen;
    Reader reader([&](Link const& link) {
        passing.reset();
        seen = link.id;
    });
    Reader other;
    ASSERT_EQ(endpoint.subscribe(&other, 2), Error::SUCCESS);
    passing = std::make_unique<MqttData<Link>>(*client_, "a/b");
    ASSERT_EQ(passing->subscribe(&reader, 1), Error::SUCCESS);
    ASSERT_EQ(passing->subscribe(&reader, 1), Error::SUCCESS);
    deliver("x");
    EXPECT_EQ(passing, nullptr);
    EXPECT_EQ(seen, "x");
    deliver("y");
    EXPECT_THAT(reader.told(), ElementsAre("x 1"));
    EXPECT_THAT(other.told(), ElementsAre("x 2", "y 2"));
}

TEST_F(ATypedEndpoint, MayBeDestroyedByTheSubscriberOfAnother) {
    auto passing = std::make_unique<MqttData<Link>>(*client_, "a/b");
    Reader killer([&](Link const&) { passing.reset(); });
    Reader reader;
    ASSERT_EQ(endpoint.subscribe(&killer, 1), Error::SUCCESS);
    ASSERT_EQ(passing->subscribe(&reader, 2), Error::SUCCESS);
    deliver("x");
    EXPECT_THAT(reader.told(), IsEmpty());
}

TEST_F(ATypedEndpoint, DestroyedOnAnotherThreadWaitsForTheCallUnderWay) {
    Watched<bool> entered;
    Watched<bool> destroyed;
    std::atomic<bool> left{false};
    Reader reader([&](Link const&) {
        set(entered);
        EXPECT_FALSE(destroyed.waitFor(isSet, A_WHILE));
        left = true;
    });
    auto passing = std::make_unique<MqttData<Link>>(*client_, "a/b");
    ASSERT_EQ(passing->subscribe(&reader, 1), Error::SUCCESS);
    script_->deliver("a/b", R"({"@id": "x"})");
    ASSERT_TRUE(entered.waitFor(isSet));
    passing.reset();
    EXPECT_TRUE(left);
    set(destroyed);
    deliver("y");
    EXPECT_THAT(reader.told(), ElementsAre("x 1"));
}

TEST_F(ATypedEndpoint, ReleasedByItsOwnerTellsNobodyAnyMore) {
    Reader reader;
    ASSERT_EQ(endpoint.subscribe(&reader, 1), Error::SUCCESS);
    endpoint.release();
    deliver("x");
    EXPECT_THAT(reader.told(), IsEmpty());
}

} // namespace
