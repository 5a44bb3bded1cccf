// The numbers: what exchanges make of the estimate.

#include "services/time_base_frame.hpp"
#include "support/manual_timer.hpp"

#include <cstdint>
#include <thread>
#include <vector>

namespace {

/// What rounding may do to the numbers here, which are below 10,000.
constexpr double ROUNDING = 1e-9;

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

    /// How much of a periodic sample's news goes into the estimate.
    double weightOfPeriodicSample(std::size_t n) {
        constexpr double NEWS = 1000.0;
        double const before = proxy->offset();
        duringAnExpiry([&] { answer(n, before + NEWS); });
        return (proxy->offset() - before) / NEWS;
    }
};

TEST_F(AnEstimateOfTheTime, IsTakenInTheMiddleOfTheExchange) {
    now = 100.0;
    ASSERT_TRUE(proxy->startSync(server));
    request(1);
    now = 101.0;
    reply(1, times(100.0, 50.0));
    EXPECT_DOUBLE_EQ(estimate(1), 50.5);
}

TEST_F(AnEstimateOfTheTime, GoesByTheEchoAndNotByWhatWasAsked) {
    now = 100.0;
    ASSERT_TRUE(proxy->startSync(server));
    request(1);
    now = 101.0;
    reply(1, times(90.0, 50.0));
    EXPECT_DOUBLE_EQ(estimate(1), 45.5);
}

TEST_F(AnEstimateOfTheTime, IsTheFirstSampleAndThenLessAndLessOfTheNextNine) {
    // What one is away after 0.1, 0.09, 0.081, ... of the way each time.
    std::vector<double> const estimates{0.0,           0.1,           0.181,         0.247339,
                                        0.30220798690, 0.34799012088, 0.38649065223, 0.41909505436,
                                        0.44687955783, 0.47068957918};
    ASSERT_TRUE(proxy->startSync(server));
    for (std::size_t n = 1; n < SAMPLES; ++n) {
        answer(n, n == 1 ? 0.0 : 1.0);
        EXPECT_NEAR(estimate(n), estimates[n - 1], ROUNDING) << "after sample " << n;
    }
    answer(SAMPLES, 1.0);
    ASSERT_TRUE(listener.isTold());
    EXPECT_NEAR(proxy->offset(), estimates.back(), ROUNDING);
}

TEST_F(AnEstimateOfTheTime, CanBeNegative) {
    synchronize(-250.5);
    EXPECT_NEAR(proxy->offset(), -250.5, ROUNDING);
    EXPECT_EQ(proxy->timeBase(), 1250U);
}

TEST_F(AnEstimateOfTheTime, GivesPeriodicSamplesEverLessWeightDownToHalfAPercent) {
    std::vector<double> const weights{
        0.03874204890, 0.03486784401, 0.03138105961, 0.02824295365, 0.02541865828, 0.02287679245,
        0.02058911321, 0.01853020189, 0.01667718170, 0.01500946353, 0.01350851718, 0.01215766546,
        0.01094189891, 0.00984770902, 0.00886293812, 0.00797664431, 0.00717897988, 0.00646108189,
        0.00581497370, 0.00523347633, 0.00471012870, 0.00471012870, 0.00471012870, 0.00471012870};
    synchronize(5.0);
    std::size_t n = SAMPLES;
    for (double const weight : weights) {
        EXPECT_NEAR(weightOfPeriodicSample(++n), weight, ROUNDING) << "in exchange " << n;
    }
    EXPECT_EQ(requestCount(), n) << "and no exchange follows";
    EXPECT_EQ(listener.count(), 1);
}

TEST_F(AnEstimateOfTheTime, StaysWhenAPeriodicExchangeFails) {
    synchronize(5.0);
    duringAnExpiry([&] { reply(11, times(1.0, 2.0), 17); });
    EXPECT_NEAR(proxy->offset(), 5.0, ROUNDING);
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_EQ(requestCount(), 11U) << "and it is not made again";
    EXPECT_NEAR(weightOfPeriodicSample(12), 0.03874204890, ROUNDING) << "nor does it count";
}

TEST_F(AnEstimateOfTheTime, StaysWhenAPeriodicReplyCannotBeRead) {
    synchronize(5.0);
    duringAnExpiry([&] { reply(11, "\"client\": 1"); });
    duringAnExpiry([&] { reply(12, times(1.7e308, -1.7e308)); });
    EXPECT_NEAR(proxy->offset(), 5.0, ROUNDING);
    EXPECT_EQ(requestCount(), 12U);
    EXPECT_NEAR(weightOfPeriodicSample(13), 0.03874204890, ROUNDING);
}

TEST_F(AnEstimateOfTheTime, StartsAnewWithTheNextServer) {
    synchronize(5.0);
    weightOfPeriodicSample(11);
    proxy->stop();
    EXPECT_EQ(proxy->offset(), 0.0);
    ASSERT_TRUE(proxy->startSync(support::uniqueId()));
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
    answer(11, 100.0);
    ASSERT_TRUE(support::eventually([&] { return proxy->offset() != 0.0; }));
    EXPECT_NEAR(proxy->offset(), 3.874204890, ROUNDING);
    EXPECT_TRUE(proxy->isSynchronized());
    receiveAll();
    EXPECT_EQ(requestCount(), 11U) << "no exchange follows";
    EXPECT_EQ(listener.count(), 1) << "and nobody is told";
    EXPECT_NEAR(weightOfPeriodicSample(12), 0.03486784401, ROUNDING);
}

TEST_F(AnEstimateOfTheTime, IsForcedAgainWhenThatExchangeFails) {
    synchronize(5.0);
    proxy->forceSync();
    reply(11, times(1.0, 2.0), 17);
    answer(12, 100.0);
    ASSERT_TRUE(support::eventually([&] { return proxy->offset() != 0.0; }));
    EXPECT_NEAR(proxy->offset(), 3.874204890, ROUNDING);
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
    ASSERT_TRUE(listener.isTold());
    EXPECT_EQ(requestCount(), 10U);
    EXPECT_NEAR(proxy->offset(), 5.0, ROUNDING);
}

class TheServersTime : public AnEstimateOfTheTime {
protected:
    /// With an estimate of this much.
    std::uint32_t timeBaseWith(double offset) {
        EXPECT_TRUE(proxy->startSync(server));
        auto const n = requestCount();
        reply(n, times(now, now - offset));
        request(n + 1);
        auto const result = proxy->timeBase();
        proxy->stop();
        return result;
    }
};

TEST_F(TheServersTime, IsOurOwnBeforeAnythingIsKnown) {
    now = 1000.999;
    EXPECT_EQ(proxy->timeBase(), 1000U);
}

TEST_F(TheServersTime, IsWholeSecondsOfOurClockLessTheEstimate) {
    now = 1000.75;
    EXPECT_EQ(timeBaseWith(300.5), 700U);
    EXPECT_EQ(timeBaseWith(-300.5), 1301U);
}

TEST_F(TheServersTime, IsZeroWhileTheEstimateExceedsOurClock) {
    EXPECT_EQ(timeBaseWith(1000.5), 0U);
    EXPECT_EQ(timeBaseWith(1005.0), 0U);
    EXPECT_EQ(timeBaseWith(1e300), 0U);
    EXPECT_EQ(timeBaseWith(1000.0), 0U);
}

TEST_F(TheServersTime, EndsWithThe32BitsThatItHas) {
    now = 0.0;
    EXPECT_EQ(timeBaseWith(-4294967294.5), 4294967294U);
    EXPECT_EQ(timeBaseWith(-4294967295.5), UINT32_MAX);
    EXPECT_EQ(timeBaseWith(-4294967297.0), UINT32_MAX);
    EXPECT_EQ(timeBaseWith(-1e300), UINT32_MAX);
}

} // namespace
