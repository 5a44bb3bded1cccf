// Each allocation fails once, in turn.

#include "client/client_on_a_script.hpp"
#include "support/allocations.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace {

using mqtt::MqttClient;
using mqtt::Topic;
using support::failEachAllocation;
using support::FailingAllocation;
using Error = MqttClient::Error;
using Operation = support::StandIn::Operation;

TEST(ATopicWithoutMemoryForItsSegments, IsEmptiedByAResizeToZero) {
    Topic const path("a/b");
    Topic topic;
    {
        FailingAllocation const failing(1); // of the segments: a short text needs none
        EXPECT_THROW(topic = path, std::bad_alloc);
    }
    ASSERT_EQ(topic.text(), "a/b");
    topic.resize(0);
    EXPECT_EQ(topic.text(), "");
}

class ASubscriptionWithoutMemory : public AClientOnAScript {
protected:
    ~ASubscriptionWithoutMemory() override { client_->release(&subscriber_); }

    std::size_t received(std::string const& topic) {
        subscriber_.clear();
        script_->deliver(topic, "x");
        letTheStepEnd();
        return subscriber_.count();
    }
};

TEST_F(ASubscriptionWithoutMemory, IsNotMadeAtAllAndLeavesThoseOfOthersAlone) {
    struct Case {
        std::string pattern, topic;
    };
    connect();
    mqtt::test::MessageRecorder other;
    ASSERT_EQ(client_->subscribe("shared", &other, 0), Error::SUCCESS);
    for (auto const& one :
         {Case{"shared", "shared"}, Case{"plant/hall/device", "plant/hall/device"}, Case{"+", "a"},
          Case{"plant/a-rather-long-level/+/#", "plant/a-rather-long-level/b/y"}}) {
        SCOPED_TRACE(one.pattern);
        Topic const subscribed(one.pattern);
        auto const calls = script_->count(Operation::SUBSCRIBE);
        auto const failures = failEachAllocation(
            [&] { ASSERT_EQ(client_->subscribe(subscribed, &subscriber_, 0), Error::SUCCESS); },
            [&](unsigned which) {
                EXPECT_EQ(received(one.topic), 0U) << "allocation " << which;
                EXPECT_EQ(client_->unsubscribe(subscribed, &subscriber_), Error::NOT_FOUND);
                EXPECT_EQ(script_->count(Operation::SUBSCRIBE), calls) << "at the broker";
            });
        EXPECT_GE(failures, 2U);
        EXPECT_EQ(received(one.topic), 1U);
        client_->release(&subscriber_);
        EXPECT_EQ(received(one.topic), 0U);
    }
    other.clear();
    received("shared");
    EXPECT_EQ(other.count(), 1U);
    client_->release(&other);
}

TEST_F(ASubscriptionWithoutMemory, CanBeEnded) {
    connect();
    Topic const a("a");
    for (auto const* topic : {"a", "b", "c/#"}) {
        ASSERT_EQ(client_->subscribe(topic, &subscriber_, 0), Error::SUCCESS);
    }
    {
        FailingAllocation const failing(1);
        EXPECT_EQ(client_->unsubscribe(a, &subscriber_), Error::SUCCESS);
        client_->release(&subscriber_);
        EXPECT_TRUE(failing.happened()) << "what notices a broker that changes the order";
    }
    EXPECT_EQ(script_->count(Operation::UNSUBSCRIBE), 3U);
}

TEST_F(ASubscriptionWithoutMemory, LosesThatMessageOnly) {
    connect();
    ASSERT_EQ(client_->subscribe("a-rather-long/topic", &subscriber_, 0), Error::SUCCESS);
    std::string topic = "a-rather-long/topic";
    mosquitto_message message{};
    message.topic = topic.data();
    message.payload = topic.data();
    message.payloadlen = static_cast<int>(topic.size());
    for (unsigned which = 1; which < 8; ++which) {
        script_->runInLoop([&](mosqpp::mosquittopp& object) {
            FailingAllocation const failing(which);
            object.on_message(&message);
        });
    }
    EXPECT_EQ(received(topic), 1U);
}

TEST_F(AClientOnAScript, IsNotHalfConnectedWithoutMemory) {
    client_->unregisterListener(&states_); // it allocates too
    std::string const host = "a host name that is too long to be kept inside a string";
    auto const failures = failEachAllocation(
        [&] { EXPECT_EQ(client_->connect(host, 1, 30), Error::SUCCESS); },
        [&](unsigned which) {
            EXPECT_EQ(client_->communicationState(), conv::ComState::DISCONNECTED) << which;
            EXPECT_EQ(script_->count(Operation::CONNECT), 0U) << which;
        });
    EXPECT_GE(failures, 1U);
}

TEST_F(AClientOnAScript, DisconnectsAndEndsWithoutMemory) {
    connect();
    {
        FailingAllocation const failing(1);
        EXPECT_EQ(client_->disconnect(30), Error::SUCCESS);
    }
    connect();
    FailingAllocation const failing(1);
    client_.reset();
}

/// Counts without an allocation.
struct LossCounter : MqttClient::Listener {
    virtual ~LossCounter() = default;
    void onComStateChanged(conv::ComState state) override {
        losses += state == conv::ComState::CONNECTION_LOST ? 1 : 0;
    }
    std::atomic<int> losses{0};
};

TEST_F(AClientOnAScript, TellsItsListenersOfALostConnectionWithoutMemory) {
    LossCounter first;
    LossCounter second;
    connect();
    client_->registerListener(&first);
    client_->registerListener(&second);
    script_->runInLoop([](mosqpp::mosquittopp& object) {
        FailingAllocation const failing(1);
        object.on_disconnect(7);
    });
    EXPECT_EQ(first.losses, 1);
    EXPECT_EQ(second.losses, 1);
    client_->unregisterListener(&second);
    client_->unregisterListener(&first);
}

} // namespace
