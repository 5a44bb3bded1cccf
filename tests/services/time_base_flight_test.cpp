// Stopping and starting while the worker or the timer handles a reply of the run before. A
// checkpoint in the proxy's clock stops them there.

#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

namespace {

using manual_timer::record;

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

} // namespace
