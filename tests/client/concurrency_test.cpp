// Subscribers that come and go while messages arrive. The sanitizers see more here
// than the assertions do.

#include "client/flood.hpp"
#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/timeout_factor.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace {

using Client = mqtt::MqttClient;
using Error = mqtt::MqttClient::Error;

std::vector<Flood::Post> const POSTS{
    {"flood/0", "x"}, {"flood/1", "x"}, {"flood/2", "x"}, {"flood/3", "x"}};

constexpr int ROUNDS = 400 / support::TIMEOUT_FACTOR;

/// Makes subscribers, and releases and destroys each of them.
/// @return how many were called
int makeAndDestroySubscribers(Client& client, unsigned seed) {
    std::minstd_rand random(seed);
    std::array<char const*, 6> const topics{"flood/0", "flood/1", "flood/2",
                                            "flood/3", "flood/+", "flood/#"};
    int called = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        std::atomic<bool> isReleased{false};
        std::atomic<int> calls{0};
        std::atomic<int> lateCalls{0};
        {
            mqtt::test::MessageRecorder subscriber([&](auto&&...) {
                std::this_thread::yield();
                ++(isReleased ? lateCalls : calls);
            });
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(client.subscribe(topics[random() % topics.size()], &subscriber, i),
                          Error::SUCCESS);
            }
            if (round % 8 == 0) {
                EXPECT_TRUE(mqtt::test::eventually([&] { return calls > 0; }));
            }
            client.unsubscribe(topics[random() % topics.size()], &subscriber);
            client.release(&subscriber);
            isReleased = true;
        }
        // Gives the worker a chance to call the destroyed subscriber.
        std::this_thread::yield();
        called += calls > 0 ? 1 : 0;
        EXPECT_EQ(lateCalls, 0);
    }
    return called;
}

TEST(Subscribers, ComeAndGoWhileMessagesArrive) {
    mqtt::test::Broker broker;
    mqtt::test::MessageRecorder permanent;
    auto const client = mqtt::test::testClient(broker);
    ASSERT_EQ(client->subscribe("other/#", &permanent, 0), Error::SUCCESS);
    std::atomic<int> called{0};
    {
        Flood const flood(broker, POSTS);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 3; ++i) {
            threads.emplace_back([&, i] { called += makeAndDestroySubscribers(*client, i + 1); });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }
    EXPECT_GT(called, 0);
    mqtt::test::RawPeer(broker).publish("other/a", "still there");
    EXPECT_TRUE(permanent.waitForPayload("still there"));
}

} // namespace
