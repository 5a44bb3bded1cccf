// Starts, stops, replies and destructions at the same time. Some defects here are seen by a
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

/// From before the first request arrives to after the time is known.
microseconds momentOf(int round) {
    return microseconds(175 * (round % 40));
}

/// An adaptor whose clock is part of a derived class.
class DerivedAdaptor : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    using mqtt::SynchronizedTimeBaseMqttAdaptor::SynchronizedTimeBaseMqttAdaptor;
    ~DerivedAdaptor() override {
        release();
        clock_.expectNoReader();
    }

    double localTimeBase() const override { return clock_.seconds(); }

private:
    DerivedClock clock_{[] { return 2000.0; }};
};

/// Proxies and a real server, on two clients.
class TimeBases : public SessionOnABroker {
protected:
    TimeBases() {
        support::Watchdog::limit(std::chrono::seconds(300));
        settle(*serversMqtt);
    }

    std::unique_ptr<ClockedProxy> makeProxy(mqtt::MqttClient& client, TimeListener* listener) {
        // Sanitizers see when the clock is read after the proxy's end.
        auto const time = std::make_shared<double>(1000.0);
        return std::make_unique<ClockedProxy>(client, "svc", id, listener,
                                              [time] { return *time; });
    }

    Uuid const server = support::uniqueId();
    std::unique_ptr<mqtt::MqttClient> serversMqtt = support::testClient(broker);
    std::unique_ptr<DerivedAdaptor> adaptor =
        std::make_unique<DerivedAdaptor>(*serversMqtt, "svc", server);
};

TEST_F(TimeBases, NeverLoseAFirstReplyInManyRounds) {
    int const count = rounds(100);
    for (auto* const client : {mqtt.get(), serversMqtt.get()}) {
        TimeListener listener;
        auto const proxy = makeProxy(*client, &listener);
        for (int round = 1; round <= count; ++round) {
            ASSERT_TRUE(proxy->startSync(server));
            ASSERT_TRUE(listener.waitForCalls(round)) << "in round " << round;
            ASSERT_TRUE(proxy->stop());
        }
    }
}

TEST_F(TimeBases, EndAtAnyMomentInManyRounds) {
    int const count = rounds(40);
    for (int round = 0; round < count; ++round) {
        // A new identifier: the adaptor may get a request before its constructor returns.
        auto const fresh = support::uniqueId();
        auto own = std::make_unique<DerivedAdaptor>(*serversMqtt, "svc", fresh);
        auto listener = std::make_unique<TimeListener>();
        auto proxy = makeProxy(*mqtt, listener.get());
        ASSERT_TRUE(proxy->startSync(fresh));
        spendTime(momentOf(round));
        if (round % 2 == 0) {
            own.reset();
        }
        proxy.reset();
        ASSERT_LE(listener->count(), 1);
        listener.reset();
    }
}

TEST_F(TimeBases, MayBeUsedByAllThreadsInManyRounds) {
    TimeListener listener;
    auto proxy = makeProxy(*mqtt, &listener);
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
    EXPECT_DOUBLE_EQ(proxy->offset(), -1000.0);
}

} // namespace
