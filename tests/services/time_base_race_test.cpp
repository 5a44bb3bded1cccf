// Starts, stops and replies at the same time. Some defects here are seen by a
// sanitizer only.

#include "requestreply/rounds.hpp"
#include "services/time_base_fixture.hpp"
#include "support/watchdog.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

/// Returns after this time, without a sleep, which is too coarse.
void spendTime(microseconds time) {
    auto const moment = steady_clock::now() + time;
    while (steady_clock::now() < moment) {
        std::this_thread::yield();
    }
}

/// Proxies and a real server, on two clients.
class TimeBases : public SessionOnABroker {
protected:
    TimeBases() {
        support::Watchdog::limit(std::chrono::seconds(300));
        settle(*serversMqtt);
    }

    Uuid const server = support::uniqueId();
    std::unique_ptr<mqtt::MqttClient> serversMqtt = support::testClient(broker);
    mqtt::SynchronizedTimeBaseMqttAdaptor const adaptor{*serversMqtt, "svc", server};
};

TEST_F(TimeBases, NeverLoseAFirstReplyInManyRounds) {
    int const count = rounds(100);
    for (auto* const client : {mqtt.get(), serversMqtt.get()}) {
        TimeListener listener;
        auto const proxy =
            std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(*client, "svc", id, &listener);
        for (int round = 1; round <= count; ++round) {
            ASSERT_TRUE(proxy->startSync(server));
            ASSERT_TRUE(listener.waitForCalls(round)) << "in round " << round;
            ASSERT_TRUE(proxy->stop());
        }
    }
}

TEST_F(TimeBases, MayBeUsedByAllThreadsInManyRounds) {
    TimeListener listener;
    auto const proxy =
        std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(*mqtt, "svc", id, &listener);
    std::atomic<bool> end{false};
    std::vector<std::thread> threads;
    auto const repeat = [&](auto action) {
        threads.emplace_back([&end, action] {
            while (!end) {
                action();
            }
        });
    };
    repeat([&] { proxy->startSync(server); });
    repeat([&] { proxy->synchronize(server, 1); });
    repeat([&] {
        proxy->forceSync();
        proxy->timeBase();
        proxy->registerListener(&listener);
    });
    std::minstd_rand random(7);
    int const count = rounds(50);
    for (int round = 0; round < count; ++round) {
        spendTime(microseconds(random() % 10000));
        proxy->stop();
    }
    end = true;
    for (auto& thread : threads) {
        thread.join();
    }
    proxy->stop();
    int const before = listener.count();
    ASSERT_TRUE(proxy->startSync(server));
    EXPECT_TRUE(listener.waitForCalls(before + 1));
}

} // namespace
