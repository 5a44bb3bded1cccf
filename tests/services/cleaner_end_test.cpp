// Cleaners that are ended while something is going on.

#include "requestreply/blocking_thread.hpp"
#include "services/barrier.hpp"
#include "services/cleaner_on_a_script.hpp"
#include "support/timeout_factor.hpp"

#include <atomic>
#include <optional>

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using TheEndOfACleaner = ACleaner;

TEST_F(TheEndOfACleaner, DropsRequestsWithoutAWord) {
    cleaner->clean("a", AN_HOUR);
    cleaner->clean("b", milliseconds(0));
    cleaner->terminate();
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a", "b"));
    EXPECT_THAT(script->calls(Operation::DISCONNECT), SizeIs(1));
    EXPECT_FALSE(script->connected());
    EXPECT_EQ(manual_timer::record().terminations, 1);
    look();
    EXPECT_THAT(recorder.told(), IsEmpty());
    EXPECT_FALSE(script->destroyed());
    cleaner.reset();
    EXPECT_TRUE(script->destroyed());
}

TEST_F(TheEndOfACleaner, ComesWithTheDestructorToo) {
    cleaner->clean("a", AN_HOUR);
    cleaner.reset();
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a"));
    EXPECT_THAT(script->calls(Operation::DISCONNECT), SizeIs(1));
    EXPECT_THAT(recorder.told(), IsEmpty());
}

TEST_F(TheEndOfACleaner, IsForGood) {
    cleaner->terminate();
    cleaner->clean("a", milliseconds(0));
    EXPECT_EQ(script->count(Operation::SUBSCRIBE), 0U);
    EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
    look();
    cleaner->terminate();
    EXPECT_THAT(recorder.told(), IsEmpty());
    EXPECT_EQ(manual_timer::record().restarts, 0);
}

TEST_F(TheEndOfACleaner, LetsThoseGoWhoWait) {
    cleaner->clean("a", AN_HOUR);
    bool ended = false;
    bool endedToo = false;
    BlockingThread one([&] { ended = cleaner->waitAllTasks(milliseconds::max()); });
    BlockingThread other([&] { endedToo = cleaner->waitAllTasks(AN_HOUR); });
    ASSERT_TRUE(one.isBlocked());
    ASSERT_TRUE(other.isBlocked());
    cleaner->terminate();
    one.join();
    other.join();
    EXPECT_TRUE(ended && endedToo);
}

TEST_F(TheEndOfACleaner, LetsThoseGoWhoWaitBeforeItIsDestroyed) {
    cleaner->clean("a", AN_HOUR);
    for (int i = 0; i < 20; ++i) {
        cleaner->clean("a", AN_HOUR);
        std::atomic<bool> left{false};
        BlockingThread waiter([&, which = cleaner.get()] {
            EXPECT_TRUE(which->waitAllTasks(AN_HOUR));
            left = true;
        });
        ASSERT_TRUE(waiter.isBlocked());
        cleaner.reset();
        waiter.join();
        EXPECT_TRUE(left);
        replace(&recorder);
    }
}

TEST_F(TheEndOfACleaner, WaitsForRequestsBeingMade) {
    for (int i = 0; i < 40 / support::TIMEOUT_FACTOR; ++i) {
        Barrier barrier;
        script->setHook(Operation::SUBSCRIBE, [&](auto const&) { return barrier.pass(); });
        auto* const which = cleaner.get();
        BlockingThread one([=] { which->clean("a", AN_HOUR); });
        ASSERT_TRUE(barrier.waitForVisitor());
        BlockingThread another([=] { which->clean("b", AN_HOUR); });
        ASSERT_TRUE(another.isBlocked());
        BlockingThread end([&] { cleaner.reset(); });
        ASSERT_TRUE(end.isBlocked());
        barrier.open();
        one.join();
        another.join();
        end.join();
        replace(&recorder);
    }
}

TEST_F(TheEndOfACleaner, WaitsForTheMessageBeingHandled) {
    Barrier barrier;
    std::atomic<bool> left{false};
    cleaner->clean("a", AN_HOUR);
    script->setHook(Operation::PUBLISH, [&](auto const&) {
        barrier.pass();
        left = true;
        return std::optional<int>();
    });
    script->deliver("a", "x");
    ASSERT_TRUE(barrier.waitForVisitor());
    BlockingThread end([&] {
        cleaner.reset();
        EXPECT_TRUE(left);
    });
    ASSERT_TRUE(end.isBlocked());
    barrier.open();
    end.join();
    EXPECT_TRUE(script->destroyed());
}

// While the broker is away

TEST_F(TheEndOfACleaner, EndsTheSearchForTheBroker) {
    script->setHook(Operation::RECONNECT, [](auto const&) { return 14; });
    script->loseConnection();
    ASSERT_TRUE(script->waitForCalls(Operation::RECONNECT, 1));
    cleaner->terminate();
    // The second one is the worker's, which does not try any more then.
    ASSERT_TRUE(script->waitForCalls(Operation::DISCONNECT, 2));
    auto const tries = script->count(Operation::RECONNECT);
    EXPECT_LE(tries, 2U);
    cleaner->terminate();
    EXPECT_EQ(script->count(Operation::RECONNECT), tries);
}

TEST_F(TheEndOfACleaner, EndsAConnectionThatJustComesUp) {
    Barrier barrier;
    script->setHook(Operation::RECONNECT, [&](auto const&) { return barrier.pass(); });
    script->loseConnection();
    ASSERT_TRUE(barrier.waitForVisitor());
    cleaner->terminate();
    barrier.open();
    ASSERT_TRUE(script->waitForCalls(Operation::DISCONNECT, 2));
    EXPECT_TRUE(support::eventually([&] { return !script->connected(); }));
}

// Inside the listener

TEST_F(TheEndOfACleaner, ComesWhenATopicIsDone) {
    recorder.setHook([&](auto const&) { cleaner->terminate(); });
    cleaner->clean("a", milliseconds(0));
    cleaner->clean("b", milliseconds(0));
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a"));
    EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
}

TEST_F(TheEndOfACleaner, ComesWhenTheLastTopicIsDone) {
    recorder.setHook([&](auto const&) { cleaner->terminate(); });
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a"));
}

TEST_F(TheEndOfACleaner, ComesWhenAllIsDone) {
    recorder.setHook([&](auto const& what) {
        if (what == ALL) {
            cleaner->terminate();
        }
    });
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL));
    EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
}

TEST_F(TheEndOfACleaner, ComesByDestroyingItWhenATopicIsDone) {
    recorder.setHook([&](auto const&) { cleaner.reset(); });
    cleaner->clean("a", milliseconds(0));
    cleaner->clean("b", milliseconds(0));
    BlockingThread waiter([which = cleaner.get()] { EXPECT_TRUE(which->waitAllTasks(AN_HOUR)); });
    ASSERT_TRUE(waiter.isBlocked());
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a"));
    EXPECT_TRUE(script->destroyed());
}

TEST_F(TheEndOfACleaner, ComesByDestroyingItWhenAllIsDone) {
    recorder.setHook([&](auto const& what) {
        if (what == ALL) {
            cleaner.reset();
        }
    });
    cleaner->clean("a", milliseconds(0));
    BlockingThread waiter([which = cleaner.get()] { EXPECT_TRUE(which->waitAllTasks(AN_HOUR)); });
    ASSERT_TRUE(waiter.isBlocked());
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL));
    EXPECT_TRUE(script->destroyed());
}

TEST_F(TheEndOfACleaner, MayTakeItsListenerAlong) {
    auto doomed = std::make_unique<CleanerRecorder>();
    doomed->setHook([&](auto const&) {
        cleaner.reset();
        doomed.reset();
    });
    replace(doomed.get());
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_EQ(doomed, nullptr);
}

} // namespace
