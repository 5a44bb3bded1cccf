#include "common/active_calls.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace {

using mqtt::ActiveCalls;
using Call = ActiveCalls::Call;

/// Long enough to see that a call waits. If a machine is slow, a defect may pass unseen; a correct
/// wait never fails.
constexpr std::chrono::milliseconds NOTICEABLE_WAIT{100};

bool isOver(std::future<void> const& wait) {
    return wait.wait_for(NOTICEABLE_WAIT) == std::future_status::ready;
}

class TheWaitForActiveCalls : public testing::Test {
protected:
    /// Waits on a thread of its own, which may be inside too.
    std::future<void> waitOnAThread(bool inside = false) {
        return std::async(std::launch::async, [inside, calls = calls] {
            std::optional<Call> call;
            if (inside) {
                call.emplace(calls);
            }
            calls->waitForOthers();
        });
    }

    std::shared_ptr<ActiveCalls> calls = std::make_shared<ActiveCalls>();
};

TEST_F(TheWaitForActiveCalls, EndsForAllWaitingThreadsWithTheLastCall) {
    std::optional<Call> outer;
    std::optional<Call> inner;
    outer.emplace(calls);
    inner.emplace(calls);
    auto const outside = waitOnAThread();
    inner.reset();
    EXPECT_FALSE(isOver(outside));
    auto const inside = waitOnAThread(true);
    EXPECT_FALSE(isOver(inside));
    EXPECT_FALSE(isOver(outside));
    outer.reset();
    inside.wait();
    outside.wait();
}

TEST_F(TheWaitForActiveCalls, IgnoresItsOwnThreadWhichMayDestroyTheObject) {
    Call const outer(calls);
    Call const inner(calls);
    calls->waitForOthers();
    calls.reset();
}

TEST_F(TheWaitForActiveCalls, EndsWhenCallsAreEndedEarly) {
    auto const outer = std::make_unique<Call>(calls);
    auto inner = std::make_unique<Call>(calls);
    std::promise<void> entered;
    std::promise<void> left;
    std::thread other([&] {
        Call const call(calls);
        entered.set_value();
        left.get_future().wait();
    });
    entered.get_future().wait();
    auto const waiting = waitOnAThread();
    calls->endCallsOfThisThread();
    EXPECT_FALSE(isOver(waiting)) << "the other one is still inside";
    left.set_value();
    other.join();
    waiting.wait();
    // A new call is waited for again.
    auto again = std::make_unique<Call>(calls);
    auto const next = waitOnAThread();
    inner.reset();
    EXPECT_FALSE(isOver(next));
    again.reset();
    next.wait();
}

} // namespace
