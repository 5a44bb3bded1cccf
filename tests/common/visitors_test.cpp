#include "common/active_calls.hpp"

#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

using mqtt::ActiveCalls;
using support::Watched;

/// Long enough to see that something waits; it never makes a right wait fail.
constexpr std::chrono::milliseconds A_WHILE{100};

bool isSet(bool value) {
    return value;
}

void set(Watched<bool>& flag) {
    flag.change([](bool& value) { value = true; });
}

/// Somebody inside, on a thread of its own, until told to leave.
class Visitor {
public:
    explicit Visitor(std::shared_ptr<ActiveCalls> const& visitors)
        : thread_([this, visitors] {
              ActiveCalls::Call const visit(visitors);
              set(inside_);
              leave_.waitFor(isSet);
          }) {
        inside_.waitFor(isSet);
    }
    ~Visitor() { leave(); }
    Visitor(Visitor const&) = delete;
    Visitor& operator=(Visitor const&) = delete;

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

/// Waits on a thread of its own for others to leave.
class Waiting {
public:
    explicit Waiting(std::shared_ptr<ActiveCalls> const& visitors)
        : thread_([this, visitors] {
              visitors->waitForOthers();
              set(over_);
          }) {}
    ~Waiting() { thread_.join(); }
    Waiting(Waiting const&) = delete;
    Waiting& operator=(Waiting const&) = delete;

    bool isOver() const { return over_.waitFor(isSet, A_WHILE); }
    bool endsNow() const { return over_.waitFor(isSet); }

private:
    Watched<bool> over_;
    std::thread thread_;
};

class TheWaitForVisitors : public testing::Test {
protected:
    std::shared_ptr<ActiveCalls> visitors = std::make_shared<ActiveCalls>();
};

TEST_F(TheWaitForVisitors, IsOverWhenNobodyIsInside) {
    visitors->waitForOthers();
    { Visitor const visitor(visitors); }
    visitors->waitForOthers();
}

TEST_F(TheWaitForVisitors, LastsUntilTheLastOneHasLeft) {
    Visitor first(visitors);
    Visitor second(visitors);
    Waiting const waiting(visitors);
    EXPECT_FALSE(waiting.isOver());
    first.leave();
    EXPECT_FALSE(waiting.isOver());
    second.leave();
    EXPECT_TRUE(waiting.endsNow());
}

TEST_F(TheWaitForVisitors, IsEndedForEverybodyWhoWaits) {
    Visitor visitor(visitors);
    Waiting const first(visitors);
    Waiting const second(visitors);
    EXPECT_FALSE(first.isOver());
    EXPECT_FALSE(second.isOver());
    visitor.leave();
    EXPECT_TRUE(first.endsNow());
    EXPECT_TRUE(second.endsNow());
}

TEST_F(TheWaitForVisitors, IsNotForOneself) {
    ActiveCalls::Call const outer(visitors);
    ActiveCalls::Call const inner(visitors);
    visitors->waitForOthers();
}

TEST_F(TheWaitForVisitors, IsForOthersWhileOneIsInsideOneself) {
    Watched<bool> over;
    Visitor visitor(visitors);
    std::thread thread([&] {
        ActiveCalls::Call const visit(visitors);
        visitors->waitForOthers();
        set(over);
    });
    EXPECT_FALSE(over.waitFor(isSet, A_WHILE));
    visitor.leave();
    EXPECT_TRUE(over.waitFor(isSet));
    thread.join();
}

TEST_F(TheWaitForVisitors, CountsEveryVisitOfAThread) {
    std::optional<ActiveCalls::Call> inner;
    auto outer = std::make_unique<ActiveCalls::Call>(visitors);
    inner.emplace(visitors);
    Waiting const waiting(visitors);
    inner.reset();
    EXPECT_FALSE(waiting.isOver());
    outer.reset();
    EXPECT_TRUE(waiting.endsNow());
}

TEST_F(TheWaitForVisitors, IsOverWhenTheVisitorsLeaveEarly) {
    auto const outer = std::make_unique<ActiveCalls::Call>(visitors);
    auto inner = std::make_unique<ActiveCalls::Call>(visitors);
    Visitor other(visitors);
    Waiting const waiting(visitors);
    visitors->endCallsOfThisThread();
    EXPECT_FALSE(waiting.isOver()) << "the other one is still inside";
    other.leave();
    EXPECT_TRUE(waiting.endsNow());
    // And whoever comes back is waited for again.
    auto again = std::make_unique<ActiveCalls::Call>(visitors);
    Waiting const next(visitors);
    inner.reset();
    EXPECT_FALSE(next.isOver());
    again.reset();
    EXPECT_TRUE(next.endsNow());
}

TEST_F(TheWaitForVisitors, MayBeTheEndOfWhatWasVisited) {
    ActiveCalls::Call const visit(visitors);
    visitors->waitForOthers();
    visitors.reset();
}

TEST_F(TheWaitForVisitors, SeesEverybodyOut) {
    for (int round = 0; round < 200; ++round) {
        auto value = std::make_unique<std::atomic<int>>(0);
        std::atomic<int> inside{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                ActiveCalls::Call const visit(visitors);
                ++inside;
                ++*value;
            });
        }
        while (inside < 4) {
            std::this_thread::yield();
        }
        visitors->waitForOthers();
        value.reset();
        for (auto& thread : threads) {
            thread.join();
        }
    }
}

} // namespace
