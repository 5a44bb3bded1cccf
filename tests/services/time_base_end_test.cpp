// Stopping, terminating and starting anew while the worker or the timer is busy: with a reply of
// the run before, where a checkpoint in the proxy's clock stops them, or inside a listener.

#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <atomic>

namespace {

using manual_timer::record;
using mqtt::test::isSet;

class AReplyInFlight : public TimeBaseOnABroker {
protected:
    AReplyInFlight() { EXPECT_TRUE(proxy->startSync(server)); }

    /// The worker has the n-th reply, and has not looked at the proxy's state yet.
    void stopAtTheReply(std::size_t n) {
        request(n);
        checkpoint.close();
        answer(n, 5.0);
        ASSERT_TRUE(checkpoint.hasStoppedAThread());
    }

    void letItGo() {
        checkpoint.open();
        receiveAll();
    }
};

TEST_F(AReplyInFlight, ChangesNothingAfterAStopOrATermination) {
    std::size_t first = 1;
    for (bool const terminates : {false, true}) {
        answerAll(first, SAMPLES - 1, 5.0);
        stopAtTheReply(first + SAMPLES - 1);
        terminates ? proxy->terminate() : static_cast<void>(proxy->stop());
        letItGo();
        EXPECT_FALSE(proxy->isSynchronized());
        EXPECT_FALSE(record(0).armed);
        EXPECT_EQ(listener.count(), 0U);
        first += SAMPLES;
        EXPECT_EQ(requestCount(), first - 1);
        EXPECT_EQ(proxy->startSync(server), !terminates);
    }
}

TEST_F(AReplyInFlight, DoesNotCountInTheNextRun) {
    stopAtTheReply(1);
    proxy->stop();
    ASSERT_TRUE(proxy->startSync(mqtt::test::uniqueId()));
    letItGo();
    EXPECT_EQ(proxy->offset(), 0.0);
    answerAll(2, SAMPLES - 1, 7.0);
    request(11);
    EXPECT_FALSE(proxy->isSynchronized());
    answer(11, 7.0);
    ASSERT_TRUE(listener.waitForCount(1));
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

class APeriodicReplyInFlight : public TimeBaseOnABroker {};

TEST_F(APeriodicReplyInFlight, DoesNotCountInTheNextRun) {
    synchronize(5.0);
    BlockingThread expiry([] { manual_timer::expire(); });
    request(11);
    checkpoint.close();
    answer(11, 70.0);
    EXPECT_TRUE(checkpoint.hasStoppedAThread());
    proxy->stop();
    EXPECT_TRUE(proxy->startSync(mqtt::test::uniqueId()));
    checkpoint.open();
    expiry.join();
    EXPECT_EQ(proxy->offset(), 0.0);
    answerAll(12, SAMPLES, 7.0);
    ASSERT_TRUE(listener.waitForCount(2));
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

// While a listener is called

class ATimeListener : public TimeBaseOnABroker {
protected:
    void synchronizeWith(TimeListener& acting) {
        proxy->registerListener(&acting);
        auto const first = requestCount() + 1;
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(first, SAMPLES, 5.0);
        ASSERT_TRUE(acting.waitForCount(1));
    }
};

TEST_F(ATimeListener, MayStopTheProxyAndStartItAnew) {
    TimeListener acting([&](auto const&) {
        if (acting.count() == 1) {
            EXPECT_TRUE(proxy->stop());
            EXPECT_TRUE(proxy->startSync(server));
        }
    });
    synchronizeWith(acting);
    answerAll(SAMPLES + 1, SAMPLES, 7.0);
    ASSERT_TRUE(acting.waitForCount(2));
    proxy->terminate();
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

/// The listener may have to wait for the other thread, which waits for the call.
TEST_F(ATimeListener, ThatTerminatesEndsTheWaitOfAnotherThreadForItsCall) {
    for (bool const terminates : {false, true}) {
        SCOPED_TRACE(terminates);
        proxy = makeProxy();
        mqtt::test::Watched<bool> otherWaits;
        mqtt::test::Watched<bool> otherReturned;
        TimeListener acting([&](auto const&) {
            EXPECT_TRUE(otherWaits.waitFor(isSet));
            proxy->terminate();
            EXPECT_TRUE(otherReturned.waitFor(isSet));
        });
        synchronizeWith(acting);
        BlockingThread other([&] {
            terminates ? proxy->terminate() : static_cast<void>(proxy->stop());
            set(otherReturned);
        });
        ASSERT_TRUE(other.isBlocked());
        set(otherWaits);
        receiveAll();
    }
}

TEST_F(ATimeListener, IsWaitedForByAStopAndByTheFirstTerminationOnly) {
    mqtt::test::Watched<bool> mayLeave;
    std::atomic<bool> left{false};
    TimeListener slow([&](auto const&) {
        mayLeave.waitFor(isSet);
        left = true;
    });
    synchronizeWith(slow);
    EXPECT_FALSE(proxy->startSync(server));
    EXPECT_FALSE(proxy->synchronize(server, LONG_TIMEOUT_S));
    proxy->forceSync();
    EXPECT_FALSE(left) << "these have waited";
    BlockingThread stop([&] {
        proxy->stop();
        EXPECT_TRUE(left);
    });
    ASSERT_TRUE(stop.isBlocked());
    BlockingThread termination([&] {
        proxy->terminate();
        EXPECT_TRUE(left);
    });
    ASSERT_TRUE(termination.isBlocked());
    proxy->terminate();
    EXPECT_FALSE(left) << "the second termination has waited";
    set(mayLeave);
}

} // namespace
