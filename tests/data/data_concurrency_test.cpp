// Typed endpoints that are made, copied and destroyed while messages arrive. The sanitizers see
// more here than the assertions do.

#include "client/flood.hpp"
#include "mqtt/test/broker.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/timeout_factor.hpp"

#include <mqtt/link.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using mqtt::Link;
using mqtt::MqttData;
using Collection = mqtt::MqttDataCollection<Link>;
using Error = mqtt::MqttClient::Error;
using Links = std::vector<Link>;

constexpr int ROUNDS = 200 / support::TIMEOUT_FACTOR;

/// Links on "link" and collections on "links", among them a malformed and an empty payload.
std::vector<Flood::Post> linksAndLists() {
    std::vector<Flood::Post> posts;
    for (int i = 0; i < 16; ++i) {
        posts.push_back({"link", i == 1 ? "{" : i == 2 ? "" : R"({"@id": "a/b"})"});
        posts.push_back({"links", R"({"members@count": 1, "members": [{"@id": "a/b"}]})"});
    }
    return posts;
}

template <class T>
class CountingSubscriber : public MqttData<T>::Subscriber {
public:
    virtual ~CountingSubscriber() = default;
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override {
        EXPECT_FALSE(ended) << "after the end of its endpoint";
        ++calls;
    }

    std::atomic<int> calls{0};
    std::atomic<bool> ended{false};
};

template <class Endpoint, class T>
void makeCopyAndDestroy(mqtt::MqttClient& client, char const* topic) {
    for (int round = 0; round < ROUNDS; ++round) {
        CountingSubscriber<T> counter;
        {
            Endpoint endpoint(client, topic);
            EXPECT_EQ(endpoint.subscribe(&counter, 1), Error::SUCCESS);
            EXPECT_EQ(endpoint.subscribe(&counter, 2), Error::SUCCESS);
            Endpoint const copy(endpoint);
            if (round % 4 == 0) {
                EXPECT_TRUE(mqtt::test::eventually([&] { return counter.calls > 0; }));
            }
            if (round % 3 == 0) {
                endpoint.unsubscribe();
            }
        }
        counter.ended = true;
        // Gives the worker a chance to call after the end.
        std::this_thread::yield();
    }
}

TEST(TypedEndpoints, AreMadeCopiedAndDestroyedWhileMessagesArrive) {
    mqtt::test::Broker broker;
    auto const client = mqtt::test::testClient(broker);
    Flood const flood(broker, linksAndLists());
    std::vector<std::thread> threads;
    threads.emplace_back([&] { makeCopyAndDestroy<MqttData<Link>, Link>(*client, "link"); });
    threads.emplace_back([&] { makeCopyAndDestroy<MqttData<Link>, Link>(*client, "link"); });
    threads.emplace_back([&] { makeCopyAndDestroy<Collection, Links>(*client, "links"); });
    for (auto& thread : threads) {
        thread.join();
    }
}

} // namespace
