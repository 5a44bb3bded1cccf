#include "support/watched.hpp"

#include <zym/common/timer.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using support::Watched;
using zym::common::Timer;

using Lock = std::unique_lock<std::mutex>;

constexpr milliseconds SOON{1};
constexpr milliseconds NEVER = 24h;

// How long a test gives to something that must not happen: too short a time hides a defect now
// and then, but never makes a sound timer fail.
constexpr milliseconds A_CHANCE{50};

void arm(Timer& timer, milliseconds period, bool once) {
    Lock lock(timer.mutex());
    timer.setPeriod(period, lock);
    timer.once = once;
    timer.restart(lock);
}

auto atLeast(int count) {
    return [count](int counted) { return counted >= count; };
}

/// A timer that counts its expiries.
class ATimer : public testing::Test {
protected:
    bool expires(int times) { return expiries_.waitFor(atLeast(times)); }

    // When a second timer armed later has gone off so often, an expiry due by now has had its
    // chance. Nothing rests on how long that takes.
    static void letOthersPass() {
        Watched<int> passes(0);
        Timer other([&] { passes.change([](int& n) { ++n; }); }, SOON, false);
        arm(other, 5ms, false);
        EXPECT_TRUE(passes.waitFor(atLeast(10)));
    }

    Watched<int> expiries_{0};
    Timer timer_{[this] { expiries_.change([](int& n) { ++n; }); }, SOON, false};
};

TEST_F(ATimer, IsIdleWhenMade) {
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), 0);
}

TEST_F(ATimer, KeepsThePeriodAndFlagItWasMadeWith) {
    Timer once([this] { expiries_.change([](int& n) { ++n; }); }, SOON, true);
    EXPECT_TRUE(once.once);
    EXPECT_FALSE(timer_.once);
    {
        Lock lock(once.mutex());
        once.restart(lock);
    }
    EXPECT_TRUE(expires(1));
}

TEST_F(ATimer, ExpiresOncePerRestartWhenSoAsked) {
    arm(timer_, SOON, true);
    ASSERT_TRUE(expires(1));
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), 1);
    arm(timer_, SOON, true);
    EXPECT_TRUE(expires(2));
}

TEST_F(ATimer, GoesOnAtEachPeriod) {
    arm(timer_, SOON, false);
    EXPECT_TRUE(expires(5));
}

TEST_F(ATimer, CanBeRestartedAfterStop) {
    arm(timer_, NEVER, false);
    timer_.stop();
    arm(timer_, SOON, false);
    EXPECT_TRUE(expires(3));
}

TEST_F(ATimer, ExpiresOncePromptlyWithAPeriodOfZeroWhateverTheFlag) {
    int expected = 0;
    for (milliseconds const period : {0ms, -5ms}) {
        for (bool const once : {false, true}) {
            arm(timer_, period, once);
            ASSERT_TRUE(expires(++expected));
            letOthersPass();
            EXPECT_EQ(expiries_.copy(), expected);
        }
    }
}

TEST_F(ATimer, ForgetsThePendingExpiryOnRestart) {
    arm(timer_, NEVER, true);
    arm(timer_, SOON, true);
    ASSERT_TRUE(expires(1));
    {
        Lock lock(timer_.mutex());
        timer_.restart(lock);
        timer_.setPeriod(NEVER, lock);
        timer_.restart(lock);
    }
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), 1);
}

TEST_F(ATimer, OnlyStoresAPeriodThatIsSetWhileItIsArmed) {
    arm(timer_, NEVER, true);
    {
        Lock lock(timer_.mutex());
        timer_.setPeriod(SOON, lock);
    }
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), 0);
    {
        Lock lock(timer_.mutex());
        timer_.restart(lock);
    }
    EXPECT_TRUE(expires(1));
}

TEST_F(ATimer, TakesAPeriodBeyondAllTime) {
    {
        Lock lock(timer_.mutex());
        timer_.restart(lock);
        timer_.setPeriod(milliseconds(1LL << 58), lock);
    }
    ASSERT_TRUE(expires(1));
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), 1);
}

TEST_F(ATimer, ReadsTheFlagAtExpiry) {
    {
        Lock lock(timer_.mutex());
        timer_.once = false;
        timer_.restart(lock);
        timer_.once = true;
    }
    ASSERT_TRUE(expires(1));
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), 1);
}

TEST_F(ATimer, NeverExpiresAfterTerminate) {
    arm(timer_, SOON, false);
    ASSERT_TRUE(expires(2));
    timer_.terminate();
    int const seen = expiries_.copy();
    arm(timer_, SOON, false);
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), seen);
}

TEST_F(ATimer, MayBeTerminatedTwiceAndBeforeItsFirstRestart) {
    timer_.terminate();
    timer_.terminate();
    arm(timer_, SOON, true);
    letOthersPass();
    EXPECT_EQ(expiries_.copy(), 0);
}

TEST_F(ATimer, WaitsForAFarMomentWithoutExpiring) {
    for (milliseconds const period :
         {milliseconds(NEVER), milliseconds(4294967294LL * 1000), milliseconds::max()}) {
        arm(timer_, period, false);
        letOthersPass();
    }
    EXPECT_EQ(expiries_.copy(), 0);
}

TEST_F(ATimer, MayBeDestroyedWhileArmed) {
    for (int i = 0; i < 50; ++i) {
        Timer timer([this] { expiries_.change([](int& n) { ++n; }); }, SOON, false);
        arm(timer, i % 2 == 0 ? 0ms : 1ms, false);
    }
    SUCCEED();
}

TEST(ATimersCallback, RunsOnAThreadOfTheTimers) {
    Watched<std::thread::id> where;
    Timer timer([&] { where.change([](auto& id) { id = std::this_thread::get_id(); }); }, SOON,
                true);
    arm(timer, SOON, true);
    ASSERT_TRUE(where.waitFor([](auto id) { return id != std::thread::id(); }));
    EXPECT_NE(where.copy(), std::this_thread::get_id());
}

TEST(ATimersCallback, RunsWithTheTimersLockFree) {
    Watched<int> locked(0);
    Timer* self = nullptr;
    Timer timer(
        [&] {
            Lock const lock(self->mutex(), std::try_to_lock);
            locked.change([&](int& n) { n = lock.owns_lock() ? 1 : -1; });
        },
        SOON, true);
    self = &timer;
    arm(timer, SOON, true);
    ASSERT_TRUE(locked.waitFor([](int n) { return n != 0; }));
    EXPECT_EQ(locked.copy(), 1);
}

TEST(ATimersCallback, DoesNotLoseARestartOfItsOwn) {
    Watched<int> expiries(0);
    Timer* self = nullptr;
    Timer timer(
        [&] {
            if (expiries.change([](int& n) { return ++n; }) < 10) {
                arm(*self, SOON, true);
            }
        },
        SOON, true);
    self = &timer;
    arm(timer, SOON, true);
    EXPECT_TRUE(expiries.waitFor(atLeast(10)));
}

TEST(ATimersCallback, MayStopTheTimer) {
    Watched<int> expiries(0);
    Timer* self = nullptr;
    Timer timer(
        [&] {
            self->stop();
            expiries.change([](int& n) { ++n; });
        },
        SOON, false);
    self = &timer;
    arm(timer, SOON, false);
    ASSERT_TRUE(expiries.waitFor(atLeast(1)));
    arm(timer, SOON, false);
    ASSERT_TRUE(expiries.waitFor(atLeast(2)));
    timer.terminate();
    EXPECT_EQ(expiries.copy(), 2);
}

TEST(ATimersCallback, MayTerminateTheTimer) {
    Watched<int> expiries(0);
    Timer* self = nullptr;
    Timer timer(
        [&] {
            self->terminate();
            expiries.change([](int& n) { ++n; });
        },
        SOON, false);
    self = &timer;
    arm(timer, SOON, false);
    ASSERT_TRUE(expiries.waitFor(atLeast(1)));
    timer.terminate(); // joins
    EXPECT_EQ(expiries.copy(), 1);
}

TEST(ATimersCallback, MayDestroyTheTimer) {
    for (bool const once : {false, true}) {
        Watched<int> expiries(0);
        std::unique_ptr<Timer> timer;
        std::mutex owning;
        timer = std::make_unique<Timer>(
            [&] {
                {
                    std::lock_guard<std::mutex> const lock(owning);
                    timer.reset();
                }
                expiries.change([](int& n) { ++n; });
            },
            SOON, once);
        {
            std::lock_guard<std::mutex> const lock(owning);
            arm(*timer, SOON, once);
        }
        ASSERT_TRUE(expiries.waitFor(atLeast(1)));
        EXPECT_EQ(timer, nullptr);
    }
}

TEST(ATimersCallback, MayThrowWithoutEndingTheTimer) {
    Watched<int> expiries(0);
    Timer timer(
        [&] {
            expiries.change([](int& n) { ++n; });
            throw std::runtime_error("nobody listens");
        },
        SOON, false);
    arm(timer, SOON, false);
    EXPECT_TRUE(expiries.waitFor(atLeast(3)));
}

/// A timer whose callback stays until it is let go.
class ATimerInsideItsCallback : public testing::Test {
protected:
    ATimerInsideItsCallback() {
        arm(timer_, SOON, false);
        EXPECT_TRUE(inside_.waitFor(atLeast(1)));
    }
    ~ATimerInsideItsCallback() override { letGo(); }

    void letGo() {
        mayLeave_.change([](bool& may) { may = true; });
    }

    Watched<int> inside_{0};
    Watched<bool> mayLeave_{false};
    std::atomic<bool> left_{false};
    Timer timer_{[this] {
                     inside_.change([](int& n) { ++n; });
                     EXPECT_TRUE(mayLeave_.waitFor([](bool may) { return may; }));
                     left_ = true;
                 },
                 SOON, false};
};

TEST_F(ATimerInsideItsCallback, IsStoppedWithoutWaiting) {
    timer_.stop();
    EXPECT_FALSE(left_);
}

TEST_F(ATimerInsideItsCallback, DoesNotExpireAgainOnceStopped) {
    timer_.stop();
    letGo();
    EXPECT_FALSE(inside_.waitFor(atLeast(2), A_CHANCE));
    timer_.terminate();
    EXPECT_EQ(inside_.copy(), 1);
}

TEST_F(ATimerInsideItsCallback, IsTerminatedOnlyWhenTheCallbackHasReturned) {
    Watched<int> returned(0);
    std::thread terminator([&] {
        timer_.terminate();
        returned.change([](int& n) { ++n; });
    });
    EXPECT_FALSE(returned.waitFor(atLeast(1), A_CHANCE));
    letGo();
    terminator.join();
    EXPECT_TRUE(left_);
}

TEST_F(ATimerInsideItsCallback, MakesAllThreadsThatTerminateItWait) {
    Watched<int> returned(0);
    auto const terminate = [&] {
        timer_.terminate();
        returned.change([](int& n) { ++n; });
    };
    std::thread first(terminate);
    std::thread second(terminate);
    EXPECT_FALSE(returned.waitFor(atLeast(1), A_CHANCE));
    letGo();
    first.join();
    second.join();
    EXPECT_TRUE(left_);
}

TEST_F(ATimerInsideItsCallback, DoesNotMakeUpForMissedPeriods) {
    EXPECT_FALSE(inside_.waitFor(atLeast(2), A_CHANCE)); // sits through many of its periods
    auto const begin = std::chrono::steady_clock::now();
    letGo();
    ASSERT_TRUE(inside_.waitFor(atLeast(11)));
    timer_.terminate();
    int const expiries = inside_.copy() - 1;
    auto const periods = (std::chrono::steady_clock::now() - begin) / SOON;
    // One was due; all others have their own period. However slow we are, this holds.
    EXPECT_LE(expiries, periods + 2);
}

} // namespace
