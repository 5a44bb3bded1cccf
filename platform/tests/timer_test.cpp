#include "mqtt/test/watched.hpp"

#include <zym/common/test.hpp>
#include <zym/common/timer.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace {

using namespace std::chrono_literals;
using mqtt::test::Watched;
using std::chrono::milliseconds;
using zym::common::Timer;

using Lock = std::unique_lock<std::mutex>;

constexpr milliseconds SOON{1};
constexpr milliseconds NEVER = 24h;

// Long enough to see what must not happen. If a machine is slow, a defect may pass unseen; a
// correct timer never fails.
constexpr milliseconds NOTICEABLE_WAIT{50};

void arm(Timer& timer, milliseconds period, bool once) {
    Lock lock(timer.mutex());
    timer.setPeriod(period, lock);
    timer.once = once;
    timer.restart(lock);
}

auto atLeast(int count) {
    return [count](int counted) { return counted >= count; };
}

void increment(Watched<int>& count) {
    count.change([](int& n) { ++n; });
}

void restart(Timer& timer) {
    Lock lock(timer.mutex());
    timer.restart(lock);
}

/// A timer that counts its expiries.
class ATimer : public testing::Test {
protected:
    bool expires(int times) { return expiries_.waitFor(atLeast(times)); }

    // Returns when a second timer, armed later, has expired so often that this one would have too.
    void expectExpiries(int count) {
        Watched<int> others(0);
        Timer other([&] { increment(others); }, SOON, false);
        arm(other, 5ms, false);
        EXPECT_TRUE(others.waitFor(atLeast(10)));
        EXPECT_EQ(expiries_.copy(), count);
    }

    Watched<int> expiries_{0};
    std::function<void()> const count_ = [this] { increment(expiries_); };
    Timer timer_{count_, SOON, false};
};

TEST_F(ATimer, IsIdleWithThePeriodAndFlagItWasMadeWith) {
    Timer once(count_, SOON, true);
    EXPECT_TRUE(once.once);
    EXPECT_FALSE(timer_.once);
    expectExpiries(0);
    restart(once);
    ASSERT_TRUE(expires(1));
    expectExpiries(1);
}

TEST_F(ATimer, ExpiresOncePerRestartOrAtEachPeriod) {
    for (int count = 1; count <= 2; ++count) {
        arm(timer_, SOON, true);
        ASSERT_TRUE(expires(count));
        expectExpiries(count);
    }
    arm(timer_, SOON, false);
    EXPECT_TRUE(expires(7));
}

TEST_F(ATimer, ExpiresOnceAtOnceWithAPeriodOfZeroOrLessWhateverTheFlag) {
    int expected = 0;
    for (milliseconds const period : {0ms, -5ms}) {
        for (bool const once : {false, true}) {
            arm(timer_, period, once);
            ASSERT_TRUE(expires(++expected));
            expectExpiries(expected);
        }
    }
}

TEST_F(ATimer, UsesANewPeriodAndForgetsThePendingExpiryOnRestartOnly) {
    arm(timer_, NEVER, true);
    {
        Lock lock(timer_.mutex());
        timer_.setPeriod(SOON, lock);
    }
    expectExpiries(0);
    restart(timer_);
    ASSERT_TRUE(expires(1));
    {
        Lock lock(timer_.mutex());
        timer_.restart(lock);
        timer_.setPeriod(NEVER, lock);
        timer_.restart(lock);
    }
    expectExpiries(1);
}

TEST_F(ATimer, ReadsTheFlagAtExpiry) {
    {
        Lock lock(timer_.mutex());
        timer_.once = false;
        timer_.restart(lock);
        timer_.once = true;
    }
    ASSERT_TRUE(expires(1));
    expectExpiries(1);
}

TEST_F(ATimer, NeverExpiresAfterTerminate) {
    arm(timer_, SOON, false);
    ASSERT_TRUE(expires(2));
    timer_.terminate();
    timer_.terminate();
    Timer neverStarted(count_, SOON, true);
    neverStarted.terminate();
    int const before = expiries_.copy();
    arm(timer_, SOON, false);
    restart(neverStarted);
    expectExpiries(before);
}

TEST_F(ATimer, TakesAPeriodOfAnyLength) {
    for (milliseconds const period : {milliseconds(NEVER), milliseconds(4294967294LL * 1000),
                                      milliseconds(1LL << 58), milliseconds::max()}) {
        arm(timer_, period, false);
        expectExpiries(0);
    }
    {
        Lock lock(timer_.mutex());
        timer_.setPeriod(SOON, lock);
        timer_.restart(lock);
        timer_.setPeriod(milliseconds(1LL << 58), lock); // for the second expiry
    }
    ASSERT_TRUE(expires(1));
    expectExpiries(1);
}

/// A timer with a callback that the test sets before it arms the timer.
class ATimersCallback : public testing::Test {
protected:
    std::function<void(Timer&)> callback_;
    Watched<int> calls_{0};
    std::unique_ptr<Timer> timer_ = std::make_unique<Timer>(
        [this] {
            // Copied, as the callback may destroy the timer and with it this function.
            auto* const self = this;
            self->callback_(*self->timer_);
            increment(self->calls_);
        },
        SOON, false);
};

TEST_F(ATimersCallback, RunsOnAThreadOfTheTimerWithItsLockFree) {
    callback_ = [test = std::this_thread::get_id()](Timer& timer) {
        EXPECT_NE(std::this_thread::get_id(), test);
        EXPECT_TRUE(Lock(timer.mutex(), std::try_to_lock).owns_lock());
    };
    arm(*timer_, SOON, true);
    EXPECT_TRUE(calls_.waitFor(atLeast(1)));
}

TEST_F(ATimersCallback, DoesNotLoseARestartOfItsOwn) {
    callback_ = [this](Timer& timer) {
        if (calls_.copy() < 10) {
            arm(timer, SOON, true);
        }
    };
    arm(*timer_, SOON, true);
    EXPECT_TRUE(calls_.waitFor(atLeast(11)));
}

TEST_F(ATimersCallback, MayStopAndTerminateTheTimer) {
    callback_ = [](Timer& timer) { timer.stop(); };
    for (int count = 1; count <= 2; ++count) {
        arm(*timer_, SOON, false);
        ASSERT_TRUE(calls_.waitFor(atLeast(count)));
    }
    callback_ = [](Timer& timer) { timer.terminate(); };
    arm(*timer_, SOON, false);
    ASSERT_TRUE(calls_.waitFor(atLeast(3)));
    timer_->terminate(); // waits for the thread
    EXPECT_EQ(calls_.copy(), 3);
}

TEST_F(ATimersCallback, MayDestroyTheTimer) {
    std::mutex owning;
    callback_ = [&](Timer& /*timer*/) {
        std::lock_guard<std::mutex> const lock(owning);
        timer_.reset();
    };
    {
        std::lock_guard<std::mutex> const lock(owning);
        arm(*timer_, SOON, false);
    }
    ASSERT_TRUE(calls_.waitFor(atLeast(1)));
    EXPECT_EQ(timer_, nullptr);
}

TEST_F(ATimersCallback, MayThrowWithoutEndingTheTimer) {
    std::atomic<int> throws{0};
    callback_ = [&](Timer& /*timer*/) {
        if (++throws < 3) {
            throw std::runtime_error("on purpose");
        }
    };
    arm(*timer_, SOON, false);
    EXPECT_TRUE(calls_.waitFor(atLeast(1)));
    timer_->terminate();
}

/// A timer whose callback waits until it may leave.
class ATimerInsideItsCallback : public testing::Test {
protected:
    ATimerInsideItsCallback() {
        arm(timer_, SOON, false);
        EXPECT_TRUE(inside_.waitFor(atLeast(1)));
    }
    ~ATimerInsideItsCallback() override { letLeave(); }

    void letLeave() { mqtt::test::set(mayLeave_); }

    Watched<int> inside_{0};
    Watched<bool> mayLeave_{false};
    std::atomic<bool> left_{false};
    Timer timer_{[this] {
                     increment(inside_);
                     EXPECT_TRUE(mayLeave_.waitFor(mqtt::test::isSet));
                     left_ = true;
                 },
                 SOON, false};
};

TEST_F(ATimerInsideItsCallback, IsStoppedWithoutWaitingAndDoesNotExpireAgain) {
    timer_.stop();
    EXPECT_FALSE(left_);
    letLeave();
    EXPECT_FALSE(inside_.waitFor(atLeast(2), NOTICEABLE_WAIT));
    timer_.terminate();
    EXPECT_EQ(inside_.copy(), 1);
}

TEST_F(ATimerInsideItsCallback, DoesNotMakeUpForMissedPeriods) {
    EXPECT_FALSE(inside_.waitFor(atLeast(2), NOTICEABLE_WAIT)); // many periods pass
    auto const begin = std::chrono::steady_clock::now();
    letLeave();
    ASSERT_TRUE(inside_.waitFor(atLeast(11)));
    timer_.terminate();
    int const expiries = inside_.copy() - 1;
    auto const periods = (std::chrono::steady_clock::now() - begin) / SOON;
    // One expiry was due, each other one takes a period: this holds on any machine.
    EXPECT_LE(expiries, periods + 2);
}

// The pause itself is under test: there is no condition to wait for. A busy machine only makes it
// longer.
TEST(TheTestSleep, LastsAtLeastSoManyMilliseconds) {
    auto const begin = std::chrono::steady_clock::now();
    zym::common::test::sleep(20);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 20ms);
}

} // namespace
