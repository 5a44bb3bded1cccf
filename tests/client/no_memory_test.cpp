// Running out of memory at every possible place in turn.

#include "client/client_on_a_script.hpp"
#include "client/subscription_index.hpp"
#include "client/walked_registry.hpp"
#include "support/allocations.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <string>

namespace {

using mqtt::MqttClient;
using mqtt::Topic;
using support::FailingAllocation;
using Error = MqttClient::Error;

/// Calls the action with its first allocation failing, then with its second one, and so on, until
/// none is left to fail. @return how often it failed
template <class Action, class Check>
unsigned failEverywhere(Action const& action, Check const& check) {
    for (unsigned which = 1;; ++which) {
        try {
            FailingAllocation const failing(which);
            action();
            return which - 1;
        } catch (std::bad_alloc const&) {
            check(which);
        }
    }
}

TEST(ATopicWithoutMemoryForItsSegments, IsEmptiedByAResizeToZero) {
    Topic const path("a/b");
    Topic topic;
    {
        FailingAllocation const failing(1); // a short text needs none
        EXPECT_THROW(topic = path, std::bad_alloc);
    }
    ASSERT_EQ(topic.text(), "a/b");
    topic.resize(0);
    EXPECT_EQ(topic.text(), "");
}

TEST(AnIndexWithoutMemory, StaysAsItWas) {
    for (std::string const text : {"a/name-of-more-than-fifteen-bytes/+/another-one-of-that-kind/#",
                                   "+", "#", "+a", "plain", "a/b/+/c/+"}) {
        WalkedRegistry<mqtt::PatternIndex> patterns;
        mqtt::SubscriptionIndex index;
        patterns.add("a/b/+/d");
        auto const before = patterns.index().size();
        MqttClient::Subscription subscription{text, {}};
        Topic const topic = "a/b/x/d";
        auto const add = [&] { index.add(subscription); };
        auto const failures = failEverywhere(add, [&](unsigned which) {
            EXPECT_EQ(index.find(text), nullptr) << text << ", allocation " << which;
            EXPECT_EQ(index.find(topic), nullptr) << text << ", allocation " << which;
        });
        EXPECT_GE(failures, 1U) << text;
        EXPECT_EQ(index.find(text), &subscription);
        index.remove(subscription);
        EXPECT_EQ(index.find(text), nullptr);

        mqtt::PatternIndex tree;
        MqttClient::Subscription known{"a/b/+/d", {}};
        tree.add(known);
        failEverywhere([&] { tree.add(subscription); },
                       [&](unsigned which) {
                           EXPECT_EQ(tree.size(), before) << text << ", allocation " << which;
                           EXPECT_EQ(tree.find(topic), &known) << text;
                       });
    }
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

TEST_F(ASubscriptionWithoutMemory, IsNotMadeAtAll) {
    connect();
    for (std::string const pattern : {"plant/hall/device", "plant/a-rather-long-level/+/#"}) {
        Topic const topic(pattern);
        std::string const name = pattern.back() == '#' ? "plant/a-rather-long-level/x/y" : pattern;
        auto const failures = failEverywhere(
            [&] { ASSERT_EQ(client_->subscribe(topic, &subscriber_, 0), Error::SUCCESS); },
            [&](unsigned which) {
                EXPECT_EQ(received(name), 0U) << pattern << ", allocation " << which;
                EXPECT_EQ(client_->unsubscribe(topic, &subscriber_), Error::NOT_FOUND);
            });
        EXPECT_GE(failures, 3U);
        EXPECT_EQ(received(name), 1U);
        EXPECT_EQ(client_->unsubscribe(topic, &subscriber_), Error::SUCCESS);
        EXPECT_EQ(received(name), 0U);
    }
}

/// Counts without asking for memory.
struct StateCounter : MqttClient::Listener {
    virtual ~StateCounter() = default;
    void onComStateChanged(conv::ComState state) override {
        if (state == conv::ComState::CONNECTION_LOST)
            ++losses;
    }
    std::atomic<int> losses{0};
};

TEST_F(AClientOnAScript, TellsItsListenersOfALostConnectionWithoutMemory) {
    StateCounter first;
    StateCounter second;
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
