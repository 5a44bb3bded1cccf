// Starts, stops, replies, expiries and destructions that meet. What these tests cannot see by
// themselves the sanitizers do: they are worth most in such a build.

#include "services/time_base_frame.hpp"
#include "support/timeout_factor.hpp"
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

constexpr int ROUNDS = 200 / support::TIMEOUT_FACTOR;

/// Returns that much later, without having slept: sleeping is too coarse.
void pass(microseconds time) {
    auto const moment = steady_clock::now() + time;
    while (steady_clock::now() < moment) {
        std::this_thread::yield();
    }
}

/// From before the first request arrives to after the time is known.
microseconds momentOf(int round) {
    return microseconds(37 * (round % 200));
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

/// A proxy and a real server, on two clients.
class TimeBasesInARace : public SessionOnABroker {
protected:
    TimeBasesInARace() {
        support::Watchdog::limit(std::chrono::seconds(300));
        settle(*serversMqtt);
    }

    std::unique_ptr<ClockedProxy> makeProxy(TimeListener* listener,
                                            std::unique_ptr<mqtt::MqttClient> const& client) {
        // The clock is gone with the proxy, and was on the heap, where sanitizers look.
        auto const time = std::make_shared<double>(1000.0);
        return std::make_unique<ClockedProxy>(*client, "svc", id, listener,
                                              [time] { return *time; });
    }
    std::unique_ptr<ClockedProxy> makeProxy(TimeListener* listener) {
        return makeProxy(listener, mqtt);
    }

    void expectNoFirstReplyLost(std::unique_ptr<mqtt::MqttClient> const& client) {
        TimeListener listener;
        auto const proxy = makeProxy(&listener, client);
        for (int round = 1; round <= 1000; ++round) {
            ASSERT_TRUE(proxy->startSync(server));
            ASSERT_TRUE(listener.isTold(round)) << "in round " << round;
            ASSERT_TRUE(proxy->stop());
        }
    }

    Uuid const server = support::uniqueId();
    std::unique_ptr<mqtt::MqttClient> serversMqtt = support::testClient(broker);
    std::unique_ptr<DerivedAdaptor> adaptor =
        std::make_unique<DerivedAdaptor>(*serversMqtt, "svc", server);
};

TEST_F(TimeBasesInARace, NeverLoseAFirstReply) {
    expectNoFirstReplyLost(mqtt);
}

TEST_F(TimeBasesInARace, NeverLoseAFirstReplyOnOneMqttClientForBothSides) {
    expectNoFirstReplyLost(serversMqtt);
}

TEST_F(TimeBasesInARace, TellNobodyAfterAStop) {
    std::atomic<bool> stopped{false};
    TimeListener listener([&] { EXPECT_FALSE(stopped); });
    auto const proxy = makeProxy(&listener);
    for (int round = 0; round < ROUNDS; ++round) {
        stopped = false;
        ASSERT_TRUE(proxy->startSync(server));
        pass(momentOf(round));
        proxy->stop();
        stopped = true;
        ASSERT_FALSE(proxy->isSynchronized());
        ASSERT_EQ(proxy->offset(), 0.0);
    }
}

TEST_F(TimeBasesInARace, MayLoseTheProxyAtAnyMoment) {
    for (int round = 0; round < ROUNDS; ++round) {
        auto listener = std::make_unique<TimeListener>();
        auto proxy = makeProxy(listener.get());
        ASSERT_TRUE(proxy->startSync(server));
        pass(momentOf(round));
        proxy.reset();
        ASSERT_LE(listener->count(), 1);
        listener.reset();
    }
}

TEST_F(TimeBasesInARace, MayLoseTheProxyWhileOthersWaitForTheTime) {
    for (int round = 0; round < ROUNDS; ++round) {
        auto proxy = makeProxy(nullptr);
        std::thread waiter([&proxy = *proxy, this] { proxy.synchronize(server, AN_HOUR); });
        // Who waits has to be inside before the end begins.
        while (proxy->serverUuid() == Uuid::NIL) {
            std::this_thread::yield();
        }
        pass(momentOf(round));
        proxy.reset();
        waiter.join();
    }
}

TEST_F(TimeBasesInARace, MayLoseTheAdaptorAtAnyMoment) {
    for (int round = 0; round < ROUNDS; ++round) {
        // One that nobody has asked before: it answers before the derived class is whole.
        auto const fresh = support::uniqueId();
        auto doomed = std::make_unique<DerivedAdaptor>(*serversMqtt, "svc", fresh);
        auto const proxy = makeProxy(nullptr);
        ASSERT_TRUE(proxy->startSync(fresh));
        pass(momentOf(round));
        doomed.reset();
    }
}

TEST_F(TimeBasesInARace, BearWhateverThreadsDoWithOneProxy) {
    TimeListener listener;
    auto proxy = makeProxy(&listener);
    std::atomic<bool> end{false};
    std::vector<std::thread> threads;
    auto const again = [&](auto action) {
        threads.emplace_back([&end, action] {
            while (!end) {
                action();
            }
        });
    };
    again([&] { proxy->startSync(server); });
    again([&] { proxy->synchronize(server, 1); });
    again([&] {
        proxy->forceSync();
        proxy->timeBase();
        proxy->registerListener(&listener);
    });
    std::minstd_rand random(7);
    for (int round = 0; round < ROUNDS; ++round) {
        pass(microseconds(random() % 10000));
        proxy->stop();
    }
    end = true;
    for (auto& thread : threads) {
        thread.join();
    }
    proxy->stop();
    int const before = listener.count();
    ASSERT_TRUE(proxy->startSync(server));
    EXPECT_TRUE(listener.isTold(before + 1));
    EXPECT_DOUBLE_EQ(proxy->offset(), -1000.0);
}

} // namespace
