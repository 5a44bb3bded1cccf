// Typed endpoints that come, go and are copied while messages fly. What these tests cannot see
// by themselves the sanitizers do: they are worth most in such a build.

#include "client/flood.hpp"
#include "support/broker.hpp"
#include "support/timeout_factor.hpp"
#include "support/test_client.hpp"

#include <mqtt/link.hpp>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using mqtt::Link;
using mqtt::MqttData;
using Client = mqtt::MqttClient;
using Collection = mqtt::MqttDataCollection<Link>;
using Error = mqtt::MqttClient::Error;
using Links = std::vector<Link>;

constexpr int ROUNDS = 200 / support::TIMEOUT_FACTOR;

/// Links on "link", collections on "links", now and then nonsense and nothing.
std::vector<Flood::Post> linksAndLists() {
    std::vector<Flood::Post> posts;
    for (int i = 0; i < 16; ++i) {
        posts.push_back({"link", i == 1 ? "{" : i == 2 ? "" : R"({"@id": "a/b"})"});
        posts.push_back({"links", R"({"members@count": 1, "members": [{"@id": "a/b"}]})"});
    }
    return posts;
}

/// Counts what it is told, and what it is told when that is not to be any more.
template <class T>
class Counter : public MqttData<T>::Subscriber {
public:
    virtual ~Counter() = default;
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override {
        ++calls;
        if (ended) {
            ++callsAfterTheEnd;
        }
    }

    std::atomic<int> calls{0};
    std::atomic<int> callsAfterTheEnd{0};
    std::atomic<bool> ended{false};
};

template <class Endpoint, class T>
void comeAndGo(Client& client, char const* topic) {
    for (int round = 0; round < ROUNDS; ++round) {
        Counter<T> counter;
        {
            Endpoint endpoint(client, topic);
            EXPECT_EQ(endpoint.subscribe(&counter, 1), Error::SUCCESS);
            EXPECT_EQ(endpoint.subscribe(&counter, 2), Error::SUCCESS);
            if (round % 4 == 0) {
                EXPECT_TRUE(support::eventually([&] { return counter.calls > 0; }));
            }
            if (round % 3 == 0) {
                endpoint.unsubscribe();
            }
        }
        counter.ended = true;
        // The worker gets as far as it would to call what is gone.
        std::this_thread::yield();
        EXPECT_EQ(counter.callsAfterTheEnd, 0);
    }
}

TEST(TypedEndpoints, ComeAndGoWhileMessagesFly) {
    support::Broker broker;
    auto const client = support::testClient(broker);
    Flood const flood(broker, linksAndLists());
    std::vector<std::thread> threads;
    threads.emplace_back([&] { comeAndGo<MqttData<Link>, Link>(*client, "link"); });
    threads.emplace_back([&] { comeAndGo<MqttData<Link>, Link>(*client, "link"); });
    threads.emplace_back([&] { comeAndGo<Collection, Links>(*client, "links"); });
    for (auto& thread : threads) {
        thread.join();
    }
}

template <class Endpoint, class T>
void copyAndDestroy(Client& client, char const* topic) {
    Counter<T> counter;
    Endpoint original(client, topic);
    ASSERT_EQ(original.subscribe(&counter, 1), Error::SUCCESS);
    for (int round = 0; round < ROUNDS; ++round) {
        std::array<Endpoint, 2> const copies{original, original};
        EXPECT_EQ(copies[0].subscriber, &counter);
        int const before = counter.calls;
        if (round % 4 == 0) {
            EXPECT_TRUE(support::eventually([&] { return counter.calls > before; }));
        }
    }
}

TEST(TypedEndpoints, AreCopiedWhileMessagesFly) {
    support::Broker broker;
    auto const client = support::testClient(broker);
    Flood const flood(broker, linksAndLists());
    std::thread links([&] { copyAndDestroy<MqttData<Link>, Link>(*client, "link"); });
    copyAndDestroy<Collection, Links>(*client, "links");
    links.join();
}

/// Destroys its own endpoint when it is told something.
class Mayfly : public MqttData<Link>::Subscriber {
public:
    Mayfly(Client& client, std::atomic<int>& alive)
        : alive_(alive), endpoint_(std::make_unique<MqttData<Link>>(client, "link")) {
        ++alive_;
    }
    virtual ~Mayfly() { --alive_; }
    Mayfly(Mayfly const&) = delete;
    Mayfly& operator=(Mayfly const&) = delete;

    /// It may be gone when this returns.
    void fly() {
        // On the worker, so that nothing comes between the two.
        EXPECT_EQ(endpoint_->subscribe(this, 1), Error::SUCCESS);
        EXPECT_EQ(endpoint_->subscribe(this, 2), Error::SUCCESS);
    }

    void onMqttData(Link const& /*value*/, bool /*empty*/, int /*id*/) override { delete this; }

private:
    std::atomic<int>& alive_;
    std::unique_ptr<MqttData<Link>> endpoint_;
};

/// Sets one free when it is told something.
class Hatcher : public MqttData<Links>::Subscriber {
public:
    Hatcher(Client& client, std::atomic<int>& alive) : client_(client), alive_(alive) {}
    virtual ~Hatcher() = default;

    void onMqttData(Links const& /*value*/, bool /*empty*/, int /*id*/) override {
        if (alive_ == 0 && hatched < ROUNDS) {
            auto* const mayfly = new Mayfly(client_, alive_);
            ++hatched;
            mayfly->fly();
        }
    }

    std::atomic<int> hatched{0};

private:
    Client& client_;
    std::atomic<int>& alive_;
};

TEST(TypedEndpoints, DestroyThemselvesInTheirCallsWhileMessagesFly) {
    support::Broker broker;
    std::atomic<int> alive{0};
    auto const client = support::testClient(broker);
    Hatcher hatcher(*client, alive);
    Collection nest(*client, "links");
    ASSERT_EQ(nest.subscribe(&hatcher, 0), Error::SUCCESS);
    Flood const flood(broker, linksAndLists());
    EXPECT_TRUE(support::eventually([&] { return hatcher.hatched == ROUNDS && alive == 0; }));
    nest.unsubscribe();
}

TEST(TypedEndpoints, ArePublishedWrittenAndReadByManyThreadsAtOnce) {
    support::Broker broker;
    auto const client = support::testClient(broker);
    Counter<Link> counter;
    MqttData<Link> endpoint(*client, "link");
    ASSERT_EQ(endpoint.subscribe(&counter, 1), Error::SUCCESS);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < ROUNDS; ++round) {
                MqttData<Link>::Lock lock(endpoint.mutex());
                endpoint.value.id = std::to_string(i);
                endpoint.publish(lock);
                lock.lock();
                endpoint.setTopicBase("link");
                EXPECT_EQ(endpoint.topicBase().size(), 1U);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(support::eventually([&] { return counter.calls == 3 * ROUNDS; }));
}

} // namespace
