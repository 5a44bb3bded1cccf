// Starting, stopping, the timer and the listener.

#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <atomic>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using manual_timer::record;
using std::chrono::seconds;
using testing::ElementsAre;

/// The timer of the proxy, and that of its request client.
constexpr std::size_t SAMPLING = 0;
constexpr std::size_t REQUEST_TIMEOUT = 1;

class ANewTimeBaseProxy : public TimeBaseOnABroker {};

TEST_F(ANewTimeBaseProxy, RequestsTheTimeOfItsServer) {
    now = 12.5;
    ASSERT_TRUE(proxy->startSync(server));
    auto const question = request(1);
    EXPECT_EQ(question.topic, "svc/" + server.base64URL() + "/timeSync?\?/" + id.base64URL());
    EXPECT_EQ(question.payload, "{\n  \"$reqId\": " + std::to_string(idIn(question.payload))
                                    + ",\n  \"client\": 12.5\n}");
    EXPECT_EQ(question.qos, 2);
    EXPECT_FALSE(question.retain);
    EXPECT_EQ(proxy->serverUuid(), server);
    EXPECT_EQ(record(REQUEST_TIMEOUT).period, seconds(5));
    EXPECT_TRUE(record(REQUEST_TIMEOUT).armed);
}

TEST_F(ANewTimeBaseProxy, IsIdleAfterAStartThatFails) {
    auto const noClock = []() -> double { throw std::runtime_error("no clock"); };
    bool broken = true;
    ClockedProxy failing(*mqtt, "svc", id, &listener,
                         [&] { return broken ? noClock() : now.load(); });
    EXPECT_THROW(failing.startSync(server), std::runtime_error);
    EXPECT_EQ(requestCount(), 0U);
    broken = false;
    EXPECT_TRUE(failing.startSync(server));
    request(1);
}

class ATimeBaseProxyThatSamples : public TimeBaseOnABroker {
protected:
    ATimeBaseProxyThatSamples() { EXPECT_TRUE(proxy->startSync(server)); }

    void expectNoStart() {
        EXPECT_FALSE(proxy->startSync(mqtt::test::uniqueId()));
        EXPECT_FALSE(proxy->synchronize(server, LONG_TIMEOUT_S));
        EXPECT_EQ(proxy->serverUuid(), server);
        EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
    }
};

TEST_F(ATimeBaseProxyThatSamples, TakesTenSamplesAndThenOneEvery30Seconds) {
    listener.setHook([&](auto const&) {
        EXPECT_TRUE(proxy->isSynchronized());
        EXPECT_TRUE(record(SAMPLING).armed);
    });
    answerAll(1, SAMPLES - 1, 5.0);
    request(SAMPLES);
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_FALSE(record(SAMPLING).armed);
    expectNoStart();
    answer(SAMPLES, 5.0);
    ASSERT_TRUE(listener.waitForCount(1));
    expectNoStart();
    EXPECT_TRUE(proxy->isSynchronized());
    receiveAll();
    EXPECT_EQ(requestCount(), 10U);
    auto const timer = record(SAMPLING);
    EXPECT_TRUE(timer.armed);
    EXPECT_EQ(timer.period, seconds(30));
    EXPECT_FALSE(timer.once);
    std::thread expiry([] { manual_timer::expire(SAMPLING); });
    answer(11, 7.0);
    expiry.join();
    EXPECT_GT(proxy->offset(), 5.0);
    EXPECT_EQ(record(SAMPLING).restarts, timer.restarts) << "it repeats by itself";
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(ATimeBaseProxyThatSamples, RepeatsAFailedExchangeWithoutLimit) {
    answer(1, 5.0);
    std::size_t n = 2;
    for (; n < 100; ++n) {
        reply(n, times(1.0, 2.0), n % 2 == 0 ? 3 : 17);
    }
    // Times that cannot be read, and samples that are infinite.
    for (auto const& members :
         std::vector<std::string>{"", R"("client": 1)", R"("ref": 1)", R"("client": "1", "ref": 1)",
                                  R"("client": 1, "ref": null)", R"("client": 1e999, "ref": 1)",
                                  times(1.7e308, -1.7e308), times(-1.7e308, 1.7e308)}) {
        reply(n++, members);
    }
    answerAll(n, SAMPLES - 2, 5.0);
    request(n + SAMPLES - 2);
    EXPECT_FALSE(proxy->isSynchronized()) << "failed exchanges are not counted";
    answer(n + SAMPLES - 2, 5.0);
    ASSERT_TRUE(listener.waitForCount(1));
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0) << "their times do not count";
}

/// As without memory for the next request, or for the sample.
TEST_F(ATimeBaseProxyThatSamples, GoesOnWhenItsClockFailsInBetween) {
    // The clock is read when a reply comes in, and when the next exchange is made.
    for (int const reading : {1, 2}) {
        std::atomic<int> left{0};
        proxy = std::make_unique<ClockedProxy>(*mqtt, "svc", id, &listener, [&]() -> double {
            if (left > 0 && --left == 0) {
                throw std::runtime_error("no clock");
            }
            return now;
        });
        auto const first = requestCount() + 1;
        ASSERT_TRUE(proxy->startSync(server));
        request(first);
        left = reading;
        answer(first, 5.0);
        receiveAll();
        EXPECT_EQ(left, 0);
        auto const timer = record(SAMPLING);
        EXPECT_EQ(timer.armed, reading == 2) << "without it the exchange is repeated at once";
        if (timer.armed) {
            EXPECT_EQ(timer.period, seconds(1));
            manual_timer::expire(SAMPLING);
            EXPECT_FALSE(record(SAMPLING).armed);
        }
        request(first + 1);
        proxy.reset();
    }
}

TEST_F(ATimeBaseProxyThatSamples, KnowsTheTimeAlsoWithoutATimer) {
    answerAll(1, SAMPLES - 1, 5.0);
    request(SAMPLES);
    manual_timer::onRestart([] {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    });
    answer(SAMPLES, 5.0);
    EXPECT_TRUE(listener.waitForCount(1));
    EXPECT_TRUE(proxy->isSynchronized());
    receiveAll();
    EXPECT_FALSE(record(SAMPLING).armed);
    manual_timer::onRestart(nullptr);
    proxy->forceSync();
    answer(SAMPLES + 1, 5.0);
    receiveAll();
    EXPECT_TRUE(record(SAMPLING).armed) << "with the next sample";
}

class ATimeBaseProxyThatKnowsTheTime : public TimeBaseOnABroker {
protected:
    ATimeBaseProxyThatKnowsTheTime() { synchronize(5.0); }
};

TEST_F(ATimeBaseProxyThatKnowsTheTime, IsIdleAfterAStopAlsoWithALateExpiry) {
    proxy->forceSync();
    request(11);
    EXPECT_TRUE(proxy->stop());
    EXPECT_TRUE(proxy->stop()) << "also when it is idle";
    manual_timer::expire(SAMPLING);
    EXPECT_FALSE(record(SAMPLING).armed);
    EXPECT_FALSE(record(REQUEST_TIMEOUT).armed);
    expectIdle();
    ASSERT_TRUE(proxy->startSync(server));
    manual_timer::expire(SAMPLING);
    EXPECT_EQ(requestCount(), 12U);
    answerAll(12, SAMPLES, 5.0);
    EXPECT_TRUE(listener.waitForCount(2)) << "once for each start";
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, UsesThePeriodicExchangeUnderWayForAForcedOne) {
    std::thread expiry([] { manual_timer::expire(SAMPLING); });
    request(11);
    proxy->forceSync();
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_EQ(requestCount(), 11U);
    answer(11, 70.0);
    expiry.join();
    EXPECT_GT(proxy->offset(), 0.0);
    EXPECT_TRUE(proxy->isSynchronized());
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, MakesNoExchangeWithoutAConnection) {
    ASSERT_EQ(mqtt->disconnect(30), mqtt::MqttClient::Error::SUCCESS);
    manual_timer::expire();
    ASSERT_EQ(mqtt->connect("", -1, 30), mqtt::MqttClient::Error::SUCCESS);
    EXPECT_EQ(requestCount(), 10U);
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, KeepsItAfterTerminationAndCannotBeStarted) {
    proxy->terminate();
    proxy->terminate();
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
    EXPECT_EQ(proxy->timeBase(), 995U);
    EXPECT_FALSE(record(SAMPLING).armed);
    EXPECT_EQ(record(SAMPLING).terminations, 1);
    EXPECT_EQ(record(REQUEST_TIMEOUT).terminations, 1);
    EXPECT_TRUE(proxy->stop());
    EXPECT_FALSE(proxy->startSync(server));
    EXPECT_FALSE(proxy->synchronize(server, LONG_TIMEOUT_S));
    proxy->forceSync();
    EXPECT_EQ(requestCount(), 10U);
}

/// Records the listeners that are registered.
class RegisteringProxy : public mqtt::SynchronizedTimeBaseMqttProxy {
public:
    using Listener = ClockedProxy::Listener;

    RegisteringProxy(mqtt::MqttClient& client, zym::common::Uuid const& id, Listener* listener)
        : zym::common::SynchronizedTimeBaseProxy(id, listener),
          SynchronizedTimeBaseMqttProxy(client, "svc", id, listener) {}

    void registerListener(Listener* listener) override { registered.push_back(listener); }

    std::vector<Listener*> registered;
};

TEST_F(ANewTimeBaseProxy, UnregistersItsListenerWhenItIsTerminated) {
    RegisteringProxy own(*mqtt, id, &listener);
    own.terminate();
    own.terminate();
    EXPECT_THAT(own.registered, ElementsAre(nullptr));
}

} // namespace
