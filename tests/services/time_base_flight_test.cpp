// Stopping and starting while something of the run before is on its way, at moments that are rare
// by themselves: the proxy's clock holds it up.

#include "requestreply/blocking_thread.hpp"
#include "services/time_base_frame.hpp"
#include "support/manual_timer.hpp"
#include "support/timeout_factor.hpp"

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using manual_timer::record;

class AReplyInFlight : public TimeBaseOnABroker {
protected:
    AReplyInFlight() { EXPECT_TRUE(proxy->startSync(server)); }

    /// The n-th reply is with the proxy, which has not looked at its state yet.
    void holdUpTheReply(std::size_t n) {
        request(n);
        gate.close();
        answer(n, 5.0);
        ASSERT_TRUE(gate.stopsSomebody());
    }

    void letItGo() {
        gate.open();
        receiveAll();
    }
};

TEST_F(AReplyInFlight, ChangesNothingAfterAStop) {
    answerAll(1, SAMPLES - 1, 5.0);
    holdUpTheReply(SAMPLES);
    proxy->stop();
    letItGo();
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_FALSE(record(0).armed);
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_EQ(listener.count(), 0);
    EXPECT_EQ(requestCount(), 10U);
}

TEST_F(AReplyInFlight, ChangesNothingAfterTermination) {
    answerAll(1, SAMPLES - 1, 5.0);
    holdUpTheReply(SAMPLES);
    proxy->terminate();
    letItGo();
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_FALSE(record(0).armed);
    EXPECT_EQ(listener.count(), 0);
}

TEST_F(AReplyInFlight, DoesNotCountInTheNextRun) {
    holdUpTheReply(1);
    proxy->stop();
    ASSERT_TRUE(proxy->startSync(support::uniqueId()));
    letItGo();
    EXPECT_EQ(proxy->offset(), 0.0);
    answerAll(2, SAMPLES - 1, 7.0);
    request(11);
    EXPECT_FALSE(proxy->isSynchronized());
    answer(11, 7.0);
    ASSERT_TRUE(listener.isTold());
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

TEST_F(AReplyInFlight, DoesNotCountInTheNextRunThatWaits) {
    holdUpTheReply(1);
    proxy->stop();
    bool result = false;
    BlockingThread waiter([&] { result = proxy->synchronize(support::uniqueId(), AN_HOUR); });
    ASSERT_TRUE(waiter.isBlocked());
    letItGo();
    EXPECT_EQ(proxy->offset(), 0.0);
    answerAll(2, SAMPLES, 7.0);
    waiter.join();
    EXPECT_TRUE(result);
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

TEST_F(AReplyInFlight, OfAFailureIsNotMadeAgainInTheNextRun) {
    request(1);
    gate.close();
    reply(1, "", 17);
    ASSERT_TRUE(gate.stopsSomebody());
    proxy->stop();
    letItGo();
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(AReplyInFlight, IsWaitedForByTheEndOfTheProxy) {
    holdUpTheReply(1);
    BlockingThread destruction([&] { proxy.reset(); });
    ASSERT_TRUE(destruction.isBlocked());
    letItGo();
    destruction.join();
    EXPECT_EQ(listener.count(), 0);
}

class APeriodicReplyInFlight : public TimeBaseOnABroker {
protected:
    APeriodicReplyInFlight() {
        synchronize(5.0);
        expiry = std::thread([] { manual_timer::expire(); });
        request(11);
        gate.close();
        answer(11, 70.0);
        EXPECT_TRUE(gate.stopsSomebody());
    }
    ~APeriodicReplyInFlight() override {
        if (expiry.joinable()) {
            letItGo();
        }
    }

    void letItGo() {
        gate.open();
        expiry.join();
    }

    std::thread expiry;
};

TEST_F(APeriodicReplyInFlight, ChangesNothingAfterAStop) {
    proxy->stop();
    letItGo();
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_FALSE(proxy->isSynchronized());
}

TEST_F(APeriodicReplyInFlight, DoesNotCountInTheNextRun) {
    proxy->stop();
    ASSERT_TRUE(proxy->startSync(support::uniqueId()));
    letItGo();
    EXPECT_EQ(proxy->offset(), 0.0);
    answerAll(12, SAMPLES, 7.0);
    ASSERT_TRUE(listener.isTold(2));
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

/// A timer that never rests, and a server that answers at once.
class AnExpiryAtAnyMoment : public TimeBaseOnABroker {};

TEST_F(AnExpiryAtAnyMoment, ChangesNothingAfterAStopAndHindersNoStart) {
    auto const serversMqtt = support::testClient(broker);
    mqtt::SynchronizedTimeBaseMqttAdaptor const adaptor(*serversMqtt, "svc", server);
    settle(*serversMqtt);
    std::atomic<bool> end{false};
    std::thread expiring([&] {
        while (!end) {
            manual_timer::expire();
            std::this_thread::yield();
        }
    });
    for (int round = 1; round <= 100 / support::TIMEOUT_FACTOR; ++round) {
        EXPECT_TRUE(proxy->startSync(server));
        EXPECT_TRUE(listener.isTold(round)) << "in round " << round;
        auto const moment =
            std::chrono::steady_clock::now() + std::chrono::microseconds(10 * (round % 50));
        while (std::chrono::steady_clock::now() < moment) {
            std::this_thread::yield();
        }
        proxy->stop();
        EXPECT_EQ(proxy->offset(), 0.0);
        EXPECT_FALSE(record(0).armed);
    }
    end = true;
    expiring.join();
}

} // namespace
