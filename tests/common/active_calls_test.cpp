#include "common/active_calls.hpp"

#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

using mqtt::ActiveCalls;
using support::isSet;
using support::set;
using support::Watched;

/// Long enough to see that a call waits. If a machine is slow, a defect may pass unseen; a correct
/// wait never fails.
constexpr std::chrono::milliseconds NOTICEABLE_WAIT{100};

/// A call on a thread of its own, which ends when it is told to.
class CallOnAThread {
public:
    explicit CallOnAThread(std::shared_ptr<ActiveCalls> const& calls)
        : thread_([this, calls] {
              ActiveCalls::Call const call(calls);
              set(inside_);
              leave_.waitFor(isSet);
          }) {
        inside_.waitFor(isSet);
    }
    ~CallOnAThread() { leave(); }
    CallOnAThread(CallOnAThread const&) = delete;
    CallOnAThread& operator=(CallOnAThread const&) = delete;

    void leave() {
        set(leave_);
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    Watched<bool> inside_;
    Watched<bool> leave_;
    std::thread thread_;
};

/// A wait for the others on a thread of its own, which may be inside too.
class WaitOnAThread {
public:
    explicit WaitOnAThread(std::shared_ptr<ActiveCalls> const& calls, bool inside = false)
        : thread_([this, calls, inside] {
              std::optional<ActiveCalls::Call> call;
              if (inside) {
                  call.emplace(calls);
              }
              calls->waitForOthers();
              set(over_);
          }) {}
    ~WaitOnAThread() { thread_.join(); }
    WaitOnAThread(WaitOnAThread const&) = delete;
    WaitOnAThread& operator=(WaitOnAThread const&) = delete;

    bool isOver() const { return over_.waitFor(isSet, NOTICEABLE_WAIT); }
    bool ends() const { return over_.waitFor(isSet); }

private:
    Watched<bool> over_;
    std::thread thread_;
};

class TheWaitForActiveCalls : public testing::Test {
protected:
    std::shared_ptr<ActiveCalls> calls = std::make_shared<ActiveCalls>();
};

TEST_F(TheWaitForActiveCalls, EndsForAllWaitingThreadsWithTheLastCall) {
    calls->waitForOthers(); // nobody is inside
    CallOnAThread first(calls);
    CallOnAThread second(calls);
    WaitOnAThread const outside(calls);
    EXPECT_FALSE(outside.isOver());
    first.leave();
    WaitOnAThread const inside(calls, true);
    EXPECT_FALSE(inside.isOver());
    EXPECT_FALSE(outside.isOver());
    second.leave();
    EXPECT_TRUE(inside.ends());
    EXPECT_TRUE(outside.ends());
}

TEST_F(TheWaitForActiveCalls, IgnoresItsOwnThreadWhichMayDestroyTheObject) {
    ActiveCalls::Call const outer(calls);
    ActiveCalls::Call const inner(calls);
    calls->waitForOthers();
    calls.reset();
}

TEST_F(TheWaitForActiveCalls, CountsEachCallOfAThread) {
    std::optional<ActiveCalls::Call> inner;
    auto outer = std::make_unique<ActiveCalls::Call>(calls);
    inner.emplace(calls);
    WaitOnAThread const waiting(calls);
    inner.reset();
    EXPECT_FALSE(waiting.isOver());
    outer.reset();
    EXPECT_TRUE(waiting.ends());
}

TEST_F(TheWaitForActiveCalls, EndsWhenCallsAreEndedEarly) {
    auto const outer = std::make_unique<ActiveCalls::Call>(calls);
    auto inner = std::make_unique<ActiveCalls::Call>(calls);
    CallOnAThread other(calls);
    WaitOnAThread const waiting(calls);
    calls->endCallsOfThisThread();
    EXPECT_FALSE(waiting.isOver()) << "the other one is still inside";
    other.leave();
    EXPECT_TRUE(waiting.ends());
    // A new call is waited for again.
    auto again = std::make_unique<ActiveCalls::Call>(calls);
    WaitOnAThread const next(calls);
    inner.reset();
    EXPECT_FALSE(next.isOver());
    again.reset();
    EXPECT_TRUE(next.ends());
}

TEST_F(TheWaitForActiveCalls, EndsAfterAllAccesses) {
    for (int round = 0; round < 200; ++round) {
        auto value = std::make_unique<std::atomic<int>>(0);
        std::atomic<int> inside{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                ActiveCalls::Call const call(calls);
                ++inside;
                ++*value;
            });
        }
        while (inside < 4) {
            std::this_thread::yield();
        }
        calls->waitForOthers();
        value.reset();
        for (auto& thread : threads) {
            thread.join();
        }
    }
}

} // namespace
