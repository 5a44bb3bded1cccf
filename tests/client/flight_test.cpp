// Subscribers and clients that come and go while messages fly. What these tests cannot see by
// themselves the sanitizers do: they are worth most in such a build.

#include "flood.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/timeout_factor.hpp"
#include "support/test_client.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using mqtt::Topic;
using Client = mqtt::MqttClient;
using Error = mqtt::MqttClient::Error;

std::vector<std::string> const FLIGHTS{"flight/0", "flight/1", "flight/2", "flight/3"};

constexpr int ROUNDS = 400 / support::TIMEOUT_FACTOR;

/// What is left of a subscriber when it is gone.
struct Trace {
    std::atomic<bool> alive{true};
    std::atomic<int> calls{0};
    std::atomic<int> callsAfterItsEnd{0};
};

/// Is released by its destructor, in the way of every object that is a subscriber.
class Traveller : public Client::Subscriber {
public:
    Traveller(Client& client, Trace& trace) : client_(client), trace_(trace) {}
    ~Traveller() override {
        client_.release(this);
        trace_.alive = false;
    }

    void onMqttMessage(int, Topic const&, std::string const&) override {
        // Taken first: a call to what is gone should be counted where that is safe.
        auto& trace = trace_;
        std::this_thread::yield();
        ++trace.calls;
        if (!trace.alive) {
            ++trace.callsAfterItsEnd;
        }
    }

private:
    Client& client_;
    Trace& trace_;
};

struct Tally {
    std::atomic<int> called{0};
    std::atomic<int> calledAfterTheirEnd{0};
};

void comeAndGo(Client& client, Tally& tally, unsigned seed) {
    std::minstd_rand random(seed);
    std::array<char const*, 6> const topics{"flight/0", "flight/1", "flight/2",
                                            "flight/3", "flight/+", "flight/#"};
    for (int round = 0; round < ROUNDS; ++round) {
        Trace trace;
        {
            auto const traveller = std::make_unique<Traveller>(client, trace);
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(client.subscribe(topics[random() % topics.size()], traveller.get(), i),
                          Error::SUCCESS);
            }
            if (round % 8 == 0) {
                EXPECT_TRUE(support::eventually([&] { return trace.calls > 0; }));
            }
            client.unsubscribe(topics[random() % topics.size()], traveller.get());
        }
        // The worker gets as far as it would to call what is gone.
        std::this_thread::yield();
        tally.called += trace.calls > 0 ? 1 : 0;
        tally.calledAfterTheirEnd += trace.callsAfterItsEnd;
    }
}

TEST(Subscribers, ComeAndGoWhileMessagesFly) {
    support::Broker broker;
    auto const client = support::testClient(broker);
    support::MessageRecorder resident;
    ASSERT_EQ(client->subscribe("other/#", &resident, 0), Error::SUCCESS);
    Tally tally;
    {
        Flood const flood(broker, FLIGHTS, "x");
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 3; ++i) {
            threads.emplace_back([&, i] { comeAndGo(*client, tally, i + 1); });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }
    EXPECT_GT(tally.called, 0);
    EXPECT_EQ(tally.calledAfterTheirEnd, 0);
    support::RawPeer peer(broker);
    peer.publish("other/a", "still there");
    EXPECT_TRUE(resident.waitForPayload("still there"));
    client->release(&resident);
}

TEST(Subscribers, DestroyThemselvesInTheirCallsWhileMessagesFly) {
    class Mayfly : public Client::Subscriber {
    public:
        Mayfly(Client& client, std::atomic<int>& alive) : client_(client), alive_(alive) {
            ++alive_;
        }
        ~Mayfly() override { --alive_; }
        void onMqttMessage(int, Topic const&, std::string const&) override {
            client_.release(this);
            delete this;
        }

    private:
        Client& client_;
        std::atomic<int>& alive_;
    };
    support::Broker broker;
    std::atomic<int> alive{0};
    auto const client = support::testClient(broker);
    Flood const flood(broker, FLIGHTS, "x");
    for (int round = 0; round < ROUNDS; ++round) {
        auto* const mayfly = new Mayfly(*client, alive);
        // Twice in one step of the worker, or it could be gone before the second time.
        support::MessageRecorder hatcher([&, done = false](auto&&...) mutable {
            if (done) {
                return;
            }
            done = true;
            EXPECT_EQ(client->subscribe("flight/+", mayfly, 1), Error::SUCCESS);
            EXPECT_EQ(client->subscribe("flight/+", mayfly, 2), Error::SUCCESS);
        });
        ASSERT_EQ(client->subscribe("flight/0", &hatcher, 0), Error::SUCCESS);
        ASSERT_TRUE(hatcher.waitForCount(1));
        client->release(&hatcher);
        ASSERT_TRUE(support::eventually([&] { return alive == 0; }));
    }
}

TEST(Clients, AreDestroyedWhileMessagesFly) {
    support::Broker broker;
    Flood const flood(broker, FLIGHTS, "x");
    for (int round = 0; round < ROUNDS / 10; ++round) {
        std::array<support::MessageRecorder, 3> recorders;
        auto client = support::testClient(broker);
        ASSERT_EQ(client->subscribe("flight/0", &recorders[0], 0), Error::SUCCESS);
        ASSERT_EQ(client->subscribe("flight/0", &recorders[1], 0), Error::SUCCESS);
        ASSERT_EQ(client->subscribe("flight/#", &recorders[2], 0), Error::SUCCESS);
        ASSERT_TRUE(recorders[1].waitForCount(1));
        ASSERT_TRUE(recorders[2].waitForCount(1));
        ASSERT_EQ(client->publish("own", "x", round % 3, false), Error::SUCCESS);
    }
}

TEST(Clients, AreDestroyedWhileTheBrokerComesAndGoes) {
    support::Broker broker;
    for (int round = 0; round < 5; ++round) {
        support::MessageRecorder recorder;
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < 4; ++i) {
            clients.push_back(support::testClient(broker));
            ASSERT_EQ(clients.back()->subscribe("a/#", &recorder, i), Error::SUCCESS);
        }
        std::thread undertaker([&] { broker.kill(); });
        while (!clients.empty()) {
            EXPECT_EQ(clients.back()->publish("a/b", "x", 2, true), Error::SUCCESS);
            clients.pop_back();
        }
        undertaker.join();
        broker.start();
    }
}

} // namespace
