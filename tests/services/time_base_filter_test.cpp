// The estimate that the exchanges result in.

#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <thread>

namespace {

/// What rounding may do to the numbers here, which are below 10,000.
constexpr double ROUNDING = 1e-9;

/// The weight of the n-th sample in the estimate, from the second one on.
double weightOf(std::size_t n) {
    constexpr std::size_t FIRST_WITH_THE_LEAST_WEIGHT = 31;
    return 0.1 * std::pow(0.9, static_cast<double>(std::min(n, FIRST_WITH_THE_LEAST_WEIGHT)) - 2);
}

class AnEstimateOfTheTime : public TimeBaseOnABroker {
protected:
    /// The estimate after the n-th sample.
    double estimate(std::size_t n) const {
        request(n + 1);
        return proxy->offset();
    }

    /// Lets the proxy's timer expire while this happens here.
    template <class Action>
    static void duringAnExpiry(Action action) {
        std::thread expiry([] { manual_timer::expire(); });
        action();
        expiry.join();
    }

    /// The weight of a periodic sample in the estimate.
    double weightOfPeriodicSample(std::size_t n) {
        constexpr double DIFFERENCE = 1000.0;
        double const before = proxy->offset();
        duringAnExpiry([&] { answer(n, before + DIFFERENCE); });
        return (proxy->offset() - before) / DIFFERENCE;
    }
};

TEST_F(AnEstimateOfTheTime, IsTakenInTheMiddleBetweenTheEchoAndTheReply) {
    now = 100.0;
    ASSERT_TRUE(proxy->startSync(server));
    request(1);
    now = 101.0;
    reply(1, times(90.0, 50.0)); // and not the time of the request
    EXPECT_DOUBLE_EQ(estimate(1), 45.5);
}

TEST_F(AnEstimateOfTheTime, IsTheFirstSampleAndThenLessAndLessOfTheNextNine) {
    ASSERT_TRUE(proxy->startSync(server));
    double expected = 0.0;
    for (std::size_t n = 1; n <= SAMPLES; ++n) {
        answer(n, n == 1 ? 0.0 : 1.0);
        if (n > 1) {
            expected += weightOf(n) * (1.0 - expected);
        }
        if (n < SAMPLES) {
            EXPECT_NEAR(estimate(n), expected, ROUNDING) << "after sample " << n;
        }
    }
    ASSERT_TRUE(listener.waitForCount(1));
    EXPECT_NEAR(proxy->offset(), expected, ROUNDING);
}

TEST_F(AnEstimateOfTheTime, GivesPeriodicSamplesEverLessWeightDownToHalfAPercent) {
    synchronize(5.0);
    for (std::size_t n = SAMPLES + 1; n < 35; ++n) {
        EXPECT_NEAR(weightOfPeriodicSample(n), weightOf(n), ROUNDING) << "in exchange " << n;
    }
    EXPECT_EQ(requestCount(), 34U) << "and no exchange follows";
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(AnEstimateOfTheTime, IsUnchangedByAPeriodicExchangeThatFails) {
    synchronize(5.0);
    duringAnExpiry([&] { reply(11, times(1.0, 2.0), 17); });
    duringAnExpiry([&] { reply(12, "\"client\": 1"); });
    duringAnExpiry([&] { reply(13, times(1.7e308, -1.7e308)); });
    EXPECT_NEAR(proxy->offset(), 5.0, ROUNDING);
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_EQ(requestCount(), 13U) << "none is repeated";
    EXPECT_NEAR(weightOfPeriodicSample(14), 0.03874204890, ROUNDING) << "none is counted";
}

TEST_F(AnEstimateOfTheTime, StartsAnewWithTheNextServer) {
    synchronize(5.0);
    weightOfPeriodicSample(11);
    proxy->stop();
    EXPECT_EQ(proxy->offset(), 0.0);
    ASSERT_TRUE(proxy->startSync(mqtt::test::uniqueId()));
    answer(12, 70.0);
    EXPECT_NEAR(estimate(12), 70.0, ROUNDING);
    answer(13, 71.0);
    EXPECT_NEAR(estimate(13), 70.1, ROUNDING);
}

TEST_F(AnEstimateOfTheTime, IsForcedToAFractionOfOneSample) {
    synchronize(5.0);
    proxy->forceSync();
    EXPECT_EQ(proxy->offset(), 0.0);
    EXPECT_TRUE(proxy->isSynchronized());
    reply(11, times(1.0, 2.0), 17); // and is repeated
    answer(12, 100.0);
    ASSERT_TRUE(mqtt::test::eventually([&] { return proxy->offset() != 0.0; }));
    EXPECT_NEAR(proxy->offset(), 3.874204890, ROUNDING);
    EXPECT_TRUE(proxy->isSynchronized());
    receiveAll();
    EXPECT_EQ(requestCount(), 12U) << "no exchange follows";
    EXPECT_EQ(listener.count(), 1U) << "and no listener is called";
    EXPECT_NEAR(weightOfPeriodicSample(13), 0.03486784401, ROUNDING);
}

TEST_F(AnEstimateOfTheTime, CannotBeForcedBeforeItIsKnown) {
    proxy->forceSync();
    EXPECT_EQ(requestCount(), 0U);
    ASSERT_TRUE(proxy->startSync(server));
    answerAll(1, 5, 5.0);
    request(6);
    proxy->forceSync();
    EXPECT_NEAR(proxy->offset(), 5.0, ROUNDING);
    answerAll(6, 5, 5.0);
    ASSERT_TRUE(listener.waitForCount(1));
    EXPECT_EQ(requestCount(), 10U);
    EXPECT_NEAR(proxy->offset(), 5.0, ROUNDING);
}

TEST_F(AnEstimateOfTheTime, IsSubtractedFromOurClockInWholeSecondsOf32Bits) {
    struct Case {
        double now;
        double estimate;
        std::uint32_t timeBase;
    };
    now = 1000.999;
    EXPECT_EQ(proxy->timeBase(), 1000U) << "before anything is known";
    for (Case const& one :
         {Case{1000.75, 300.5, 700}, Case{1000.75, -300.5, 1301}, Case{1000.999, 1000.999, 0},
          Case{1000.999, 1005.0, 0}, Case{1000.999, 1e300, 0}, Case{0, -4294967294.5, 4294967294},
          Case{0, -4294967295.5, UINT32_MAX}, Case{0, -1e300, UINT32_MAX}}) {
        SCOPED_TRACE(one.estimate);
        now = one.now;
        ASSERT_TRUE(proxy->startSync(server));
        auto const n = requestCount();
        reply(n, times(now, now - one.estimate));
        request(n + 1);
        EXPECT_EQ(proxy->timeBase(), one.timeBase);
        proxy->stop();
    }
}

} // namespace
