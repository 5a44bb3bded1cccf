// Starting, stopping, and what is done with the timer and the listener.

#include "services/time_base_frame.hpp"
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

/// The proxy's own timer; the other one is its request client's.
constexpr std::size_t SAMPLING = 0;
constexpr std::size_t REQUEST_TIMEOUT = 1;

class ANewTimeBaseProxy : public TimeBaseOnABroker {};

TEST_F(ANewTimeBaseProxy, IsIdle) {
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_EQ(proxy->serverUuid(), Uuid::NIL);
    EXPECT_EQ(record(SAMPLING).restarts, 0);
    EXPECT_EQ(requestCount(), 0U);
}

TEST_F(ANewTimeBaseProxy, CanBeStopped) {
    EXPECT_TRUE(proxy->stop());
    EXPECT_TRUE(proxy->startSync(server));
}

TEST_F(ANewTimeBaseProxy, DoesNothingWhenItsTimerExpires) {
    manual_timer::expire(SAMPLING);
    EXPECT_EQ(requestCount(), 0U);
}

TEST_F(ANewTimeBaseProxy, AsksTheServerForItsTime) {
    now = 12.5;
    ASSERT_TRUE(proxy->startSync(server));
    auto const question = request(1);
    EXPECT_EQ(question.topic, "svc/" + server.base64URL() + "/timeSync?\?/" + id.base64URL());
    EXPECT_EQ(question.payload, "{\n  \"$reqId\": " + std::to_string(idIn(question.payload))
                                    + ",\n  \"client\": 12.5\n}");
    EXPECT_EQ(question.qos, 2);
    EXPECT_FALSE(question.retain);
    EXPECT_EQ(proxy->serverUuid(), server);
}

TEST_F(ANewTimeBaseProxy, GivesEveryExchangeFiveSeconds) {
    ASSERT_TRUE(proxy->startSync(server));
    EXPECT_EQ(record(REQUEST_TIMEOUT).period, seconds(5));
    EXPECT_TRUE(record(REQUEST_TIMEOUT).armed);
}

TEST_F(ANewTimeBaseProxy, IsNotStartedByAStartThatFailsForWantOfAClock) {
    auto const noClock = []() -> double { throw std::runtime_error("no clock"); };
    bool broken = true;
    ClockedProxy failing(*mqtt, "svc", id, &listener,
                         [&] { return broken ? noClock() : now.load(); });
    EXPECT_THROW(failing.startSync(server), std::runtime_error);
    EXPECT_EQ(requestCount(), 0U);
    broken = false;
    EXPECT_TRUE(failing.startSync(server)) << "it would not be, if it were active already";
    request(1);
}

TEST_F(ANewTimeBaseProxy, MayHaveNoListener) {
    proxy->registerListener(nullptr);
    ASSERT_TRUE(proxy->startSync(server));
    answerAll(1, SAMPLES, 5.0);
    EXPECT_TRUE(support::eventually([&] { return proxy->isSynchronized(); }));
}

class ATimeBaseProxyThatSamples : public TimeBaseOnABroker {
protected:
    ATimeBaseProxyThatSamples() { EXPECT_TRUE(proxy->startSync(server)); }
};

TEST_F(ATimeBaseProxyThatSamples, TakesTenSamplesAndNotNine) {
    answerAll(1, SAMPLES - 1, 5.0);
    request(SAMPLES);
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_EQ(listener.count(), 0);
    EXPECT_FALSE(record(SAMPLING).armed);
    answer(SAMPLES, 5.0);
    ASSERT_TRUE(listener.isTold());
    EXPECT_TRUE(proxy->isSynchronized());
    receiveAll();
    EXPECT_EQ(requestCount(), 10U);
    EXPECT_EQ(listener.count(), 1);
}

TEST_F(ATimeBaseProxyThatSamples, ThenTakesOneEvery30Seconds) {
    answerAll(1, SAMPLES, 5.0);
    ASSERT_TRUE(listener.isTold());
    auto const timer = record(SAMPLING);
    EXPECT_TRUE(timer.armed);
    EXPECT_EQ(timer.period, seconds(30));
    EXPECT_FALSE(timer.once);
    std::thread expiry([] { manual_timer::expire(SAMPLING); });
    answer(11, 7.0);
    expiry.join();
    EXPECT_GT(proxy->offset(), 5.0);
    EXPECT_TRUE(record(SAMPLING).armed);
    EXPECT_EQ(record(SAMPLING).restarts, timer.restarts) << "it repeats by itself";
    EXPECT_EQ(requestCount(), 11U);
}

TEST_F(ATimeBaseProxyThatSamples, CannotBeStartedAgain) {
    answerAll(1, 3, 5.0);
    request(4);
    EXPECT_FALSE(proxy->startSync(server));
    EXPECT_FALSE(proxy->startSync(support::uniqueId()));
    EXPECT_FALSE(proxy->synchronize(server, AN_HOUR));
    EXPECT_EQ(proxy->serverUuid(), server);
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0) << "and does not begin from the start";
    answerAll(4, 7, 5.0);
    EXPECT_TRUE(listener.isTold());
    EXPECT_FALSE(proxy->startSync(server)) << "nor when the time is known";
    EXPECT_FALSE(proxy->synchronize(server, AN_HOUR));
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_EQ(requestCount(), 10U);
}

TEST_F(ATimeBaseProxyThatSamples, MakesAFailedExchangeAgainWithoutLimit) {
    constexpr std::size_t FAILURES = 200;
    answer(1, 5.0);
    for (std::size_t n = 2; n < 2 + FAILURES; ++n) {
        reply(n, times(1.0, 2.0), n % 2 == 0 ? 3 : 17);
    }
    answerAll(2 + FAILURES, SAMPLES - 1, 5.0);
    ASSERT_TRUE(listener.isTold());
    EXPECT_EQ(requestCount(), FAILURES + 10);
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0) << "and what it said does not count";
}

TEST_F(ATimeBaseProxyThatSamples, IgnoresTheReplyToAnotherExchange) {
    answer(1, 5.0);
    auto const question = request(2);
    peer.publish(replyTopicFor(question.topic),
                 replyText(idIn(question.payload) + 1, 1, times(now, 1.0)));
    receiveAll();
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
    EXPECT_EQ(requestCount(), 2U);
}

TEST_F(ATimeBaseProxyThatSamples, DoesNotTakeTheNumbersOfAnotherExchangeForAReplyWithout) {
    answer(1, 5.0);
    auto const question = request(2);
    auto const topic = replyTopicFor(question.topic);
    peer.publish(topic, replyText(idIn(question.payload) + 1, 1, times(now, 1.0)));
    peer.publish(topic, replyText(idIn(question.payload), 1));
    request(3);
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
}

TEST_F(ATimeBaseProxyThatSamples, MakesAnExchangeAgainWhoseTimesCannotBeRead) {
    std::vector<std::string> const unreadable{
        "", R"("client": 1)", R"("ref": 1)", R"("client": "1", "ref": 1)",
        R"("client": 1, "ref": "1")", R"("client": null, "ref": 1)", R"("client": 1, "ref": null)",
        R"("client": [1], "ref": [1])", R"("client": 1, "ref": {})", R"("client": 1e999, "ref": 1)",
        // Each can be read, and the sample is beyond all numbers.
        times(1.7e308, -1.7e308), times(-1.7e308, 1.7e308)};
    std::size_t n = 1;
    for (auto const& members : unreadable) {
        reply(n++, members);
        request(n);
        EXPECT_EQ(proxy->offset(), 0.0) << members;
    }
    answerAll(n, SAMPLES - 1, 5.0);
    request(n + SAMPLES - 1);
    EXPECT_FALSE(proxy->isSynchronized()) << "not one of them counts";
    answer(n + SAMPLES - 1, 5.0);
    EXPECT_TRUE(listener.isTold());
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
}

/// As when there is no memory for the next request, or for the sample.
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
        EXPECT_EQ(timer.armed, reading == 2) << "a reply without a time is asked for again";
        if (timer.armed) {
            EXPECT_EQ(timer.period, seconds(1));
            manual_timer::expire(SAMPLING);
            EXPECT_FALSE(record(SAMPLING).armed);
        }
        request(first + 1);
        proxy.reset();
    }
}

TEST_F(ATimeBaseProxyThatSamples, KnowsTheTimeAlsoWithoutATimerForThePeriodicExchange) {
    answerAll(1, SAMPLES - 1, 5.0);
    request(SAMPLES);
    manual_timer::onRestart([] {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    });
    answer(SAMPLES, 5.0);
    EXPECT_TRUE(listener.isTold());
    EXPECT_TRUE(proxy->isSynchronized());
    receiveAll();
    EXPECT_FALSE(record(SAMPLING).armed);
    manual_timer::onRestart(nullptr);
    proxy->forceSync();
    answer(SAMPLES + 1, 5.0);
    receiveAll();
    EXPECT_TRUE(record(SAMPLING).armed) << "with the next sample";
}

TEST_F(ATimeBaseProxyThatSamples, DropsWhatIsNoReplyAtAll) {
    auto const question = request(1);
    for (std::string const text : {"null", "[]", "12", "{}", "{", "", "{\"$err\": 1}"}) {
        peer.publish(replyTopicFor(question.topic), text);
    }
    receiveAll();
    EXPECT_EQ(requestCount(), 1U);
    EXPECT_EQ(proxy->offset(), 0.0);
    answer(1, 5.0);
    request(2);
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
}

TEST_F(ATimeBaseProxyThatSamples, StopsWithoutATrace) {
    answerAll(1, 5, 5.0);
    request(6);
    EXPECT_TRUE(proxy->stop());
    EXPECT_FALSE(record(REQUEST_TIMEOUT).armed);
    EXPECT_EQ(proxy->serverUuid(), Uuid::NIL);
    EXPECT_EQ(proxy->offset(), 0.0);
    answer(6, 5.0);
    receiveAll();
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_EQ(requestCount(), 6U);
    EXPECT_EQ(listener.count(), 0);
}

TEST_F(ATimeBaseProxyThatSamples, TakesTenSamplesAgainAfterAStop) {
    answerAll(1, 5, 5.0);
    request(6);
    proxy->stop();
    ASSERT_TRUE(proxy->startSync(server));
    answerAll(7, 9, 5.0);
    request(16);
    EXPECT_FALSE(proxy->isSynchronized());
    answer(16, 5.0);
    EXPECT_TRUE(listener.isTold());
}

class ATimeBaseProxyThatKnowsTheTime : public TimeBaseOnABroker {
protected:
    ATimeBaseProxyThatKnowsTheTime() { synchronize(5.0); }
};

TEST_F(ATimeBaseProxyThatKnowsTheTime, StopsWithoutATrace) {
    EXPECT_TRUE(proxy->stop());
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_FALSE(record(SAMPLING).armed);
    EXPECT_EQ(proxy->serverUuid(), Uuid::NIL);
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_TRUE(proxy->stop()) << "and once more";
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, DoesNothingWithALateExpiryAfterAStop) {
    proxy->stop();
    manual_timer::expire(SAMPLING);
    EXPECT_EQ(requestCount(), 10U);
    ASSERT_TRUE(proxy->startSync(server));
    manual_timer::expire(SAMPLING);
    EXPECT_EQ(requestCount(), 11U);
    answerAll(11, SAMPLES, 5.0);
    EXPECT_TRUE(listener.isTold(2)) << "once for each start";
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, IsStoppedDuringAPeriodicExchange) {
    std::thread expiry([] { manual_timer::expire(SAMPLING); });
    request(11);
    proxy->stop();
    expiry.join();
    answer(11, 70.0);
    receiveAll();
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_FALSE(record(SAMPLING).armed);
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, IsStartedAnewDuringAPeriodicExchange) {
    std::thread expiry([] { manual_timer::expire(SAMPLING); });
    request(11);
    proxy->stop();
    ASSERT_TRUE(proxy->startSync(support::uniqueId()));
    expiry.join();
    answer(11, 70.0);
    answerAll(12, SAMPLES, 6.0);
    ASSERT_TRUE(listener.isTold(2));
    EXPECT_DOUBLE_EQ(proxy->offset(), 6.0);
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, LeavesAForcedExchangeToThePeriodicOneUnderWay) {
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

TEST_F(ATimeBaseProxyThatKnowsTheTime, AsksNobodyWithoutAConnection) {
    ASSERT_EQ(mqtt->disconnect(30), mqtt::MqttClient::Error::SUCCESS);
    manual_timer::expire();
    ASSERT_EQ(mqtt->connect("", -1, 30), mqtt::MqttClient::Error::SUCCESS);
    EXPECT_EQ(requestCount(), 10U);
}

TEST_F(ATimeBaseProxyThatKnowsTheTime, TerminatesAndKeepsIt) {
    proxy->terminate();
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
    EXPECT_EQ(proxy->timeBase(), 995U);
    EXPECT_FALSE(record(SAMPLING).armed);
    EXPECT_EQ(record(SAMPLING).terminations, 1);
}

class ATerminatedTimeBaseProxy : public TimeBaseOnABroker {
protected:
    ATerminatedTimeBaseProxy() { proxy->terminate(); }
};

TEST_F(ATerminatedTimeBaseProxy, TerminatesOnce) {
    proxy->terminate();
    EXPECT_EQ(record(SAMPLING).terminations, 1);
    EXPECT_EQ(record(REQUEST_TIMEOUT).terminations, 1);
}

TEST_F(ATerminatedTimeBaseProxy, CannotBeStarted) {
    EXPECT_FALSE(proxy->startSync(server));
    EXPECT_FALSE(proxy->synchronize(server, AN_HOUR));
    EXPECT_TRUE(proxy->stop());
    proxy->forceSync();
    EXPECT_EQ(requestCount(), 0U);
    EXPECT_FALSE(proxy->isSynchronized());
}

/// Counts what is registered.
class RegisteringProxy : public ClockedProxy {
public:
    RegisteringProxy(mqtt::MqttClient& client, zym::common::Uuid const& id, Listener* listener)
        : zym::common::SynchronizedTimeBaseProxy(id, listener),
          ClockedProxy(client, "svc", id, listener, [] { return 0.0; }) {}

    void registerListener(Listener* listener) override {
        registered.push_back(listener);
        ClockedProxy::registerListener(listener);
    }

    std::vector<Listener*> registered;
};

class AListenerOfTheTime : public TimeBaseOnABroker {};

TEST_F(AListenerOfTheTime, IsForgottenByWayOfItsRegistration) {
    RegisteringProxy own(*mqtt, id, &listener);
    own.terminate();
    own.terminate();
    EXPECT_THAT(own.registered, ElementsAre(nullptr));
}

TEST_F(AListenerOfTheTime, IsNotToldAfterTermination) {
    ASSERT_TRUE(proxy->startSync(server));
    answerAll(1, SAMPLES - 1, 5.0);
    request(SAMPLES);
    proxy->terminate();
    answer(SAMPLES, 5.0);
    receiveAll();
    EXPECT_EQ(listener.count(), 0);
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_FALSE(record(SAMPLING).armed);
}

TEST_F(AListenerOfTheTime, CanBeReplaced) {
    TimeListener other;
    ASSERT_TRUE(proxy->startSync(server));
    answerAll(1, SAMPLES - 1, 5.0);
    proxy->registerListener(&other);
    answer(SAMPLES, 5.0);
    EXPECT_TRUE(other.isTold());
    EXPECT_EQ(listener.count(), 0);
    proxy->registerListener(nullptr);
}

TEST_F(AListenerOfTheTime, IsToldOnTheWorkerWithTheTimeKnown) {
    std::thread::id teller;
    TimeListener watching([&] {
        teller = std::this_thread::get_id();
        EXPECT_TRUE(proxy->isSynchronized());
        EXPECT_EQ(proxy->timeBase(), 995U);
        EXPECT_TRUE(record(SAMPLING).armed);
    });
    proxy->registerListener(&watching);
    ASSERT_TRUE(proxy->startSync(server));
    answerAll(1, SAMPLES, 5.0);
    ASSERT_TRUE(watching.isTold());
    receiveAll();
    EXPECT_NE(teller, std::this_thread::get_id());
    proxy->registerListener(nullptr);
}

} // namespace
