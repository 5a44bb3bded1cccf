// Cleaners that end during their work.

#include "requestreply/blocking_thread.hpp"
#include "services/cleaner_fixture.hpp"

#include <atomic>
#include <optional>

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using TheEndOfACleaner = ACleaner;

TEST_F(TheEndOfACleaner, DropsItsRequestsWithoutCallingTheListener) {
    for (bool const destroys : {false, true}) {
        SCOPED_TRACE(destroys);
        replace(&recorder);
        cleaner->clean("a", LONG_DURATION);
        cleaner->clean("b", milliseconds(0));
        if (destroys) {
            cleaner.reset();
        } else {
            cleaner->terminate();
            EXPECT_EQ(manual_timer::record().terminations, 1);
            expire();
        }
        EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a", "b"));
        EXPECT_THAT(standIn->calls(Operation::DISCONNECT), SizeIs(1));
        EXPECT_FALSE(standIn->connected());
        EXPECT_THAT(recorder.calls(), IsEmpty());
        EXPECT_EQ(standIn->destroyed(), destroys);
    }
}

TEST_F(TheEndOfACleaner, CannotBeUndone) {
    cleaner->terminate();
    cleaner->clean("a", milliseconds(0));
    EXPECT_EQ(standIn->count(Operation::SUBSCRIBE), 0U);
    EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
    expire();
    cleaner->terminate();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_EQ(manual_timer::record().restarts, 0);
}

TEST_F(TheEndOfACleaner, EndsAllWaits) {
    for (bool const destroys : {false, true}) {
        replace(&recorder);
        cleaner->clean("a", LONG_DURATION);
        std::atomic<int> left{0};
        auto const waitFor = [&, which = cleaner.get()](milliseconds timeout) {
            EXPECT_TRUE(which->waitAllTasks(timeout));
            ++left;
        };
        BlockingThread one([&] { waitFor(milliseconds::max()); });
        BlockingThread other([&] { waitFor(LONG_DURATION); });
        ASSERT_TRUE(one.isBlocked());
        ASSERT_TRUE(other.isBlocked());
        destroys ? cleaner.reset() : cleaner->terminate();
        one.join();
        other.join();
        EXPECT_EQ(left, 2);
    }
}

TEST_F(TheEndOfACleaner, WaitsForAnUnsubscriptionAndThenCallsNoListener) {
    standIn->setAcknowledging(false);
    cleaner->clean("a", milliseconds(0));
    BlockingThread timer([] { expire(); });
    ASSERT_TRUE(standIn->waitForCalls(Operation::UNSUBSCRIBE, 1));
    BlockingThread end([&] { cleaner->terminate(); });
    ASSERT_TRUE(end.isBlocked());
    standIn->setAcknowledging(true);
    acknowledgeUnsubscription();
    end.join();
    EXPECT_THAT(recorder.calls(), IsEmpty());
}

TEST_F(TheEndOfACleaner, WaitsForRequestsBeingMade) {
    mqtt::test::Watched<bool> maySubscribe;
    standIn->setHook(Operation::SUBSCRIBE, [&](auto const&) {
        maySubscribe.waitFor(mqtt::test::isSet);
        return std::optional<int>();
    });
    auto* const which = cleaner.get();
    BlockingThread one([=] { which->clean("a", LONG_DURATION); });
    ASSERT_TRUE(standIn->waitForCalls(Operation::SUBSCRIBE, 1));
    BlockingThread another([=] { which->clean("b", LONG_DURATION); });
    ASSERT_TRUE(another.isBlocked());
    BlockingThread end([&] { cleaner.reset(); });
    ASSERT_TRUE(end.isBlocked());
    set(maySubscribe);
}

// While the broker is away

TEST_F(TheEndOfACleaner, EndsTheSearchForTheBroker) {
    standIn->setHook(Operation::RECONNECT, [](auto const&) { return 14; });
    standIn->loseConnection();
    ASSERT_TRUE(standIn->waitForCalls(Operation::RECONNECT, 1));
    cleaner->terminate();
    // The second one is the worker's, which then stops trying.
    ASSERT_TRUE(standIn->waitForCalls(Operation::DISCONNECT, 2));
    auto const tries = standIn->count(Operation::RECONNECT);
    EXPECT_LE(tries, 2U);
    cleaner->terminate();
    EXPECT_EQ(standIn->count(Operation::RECONNECT), tries);
}

TEST_F(TheEndOfACleaner, InsideItsListenersCallEndsWaitsAndLaterCalls) {
    struct End {
        std::string call; ///< of the listener, in which the cleaner ends
        bool destroys;
        Strings calls; ///< of the listener in all
    };
    for (auto const& end :
         {End{"a", false, {"a"}}, End{"b", false, {"a", "b"}}, End{ALL, false, {"a", "b", ALL}},
          End{"a", true, {"a"}}, End{ALL, true, {"a", "b", ALL}}}) {
        SCOPED_TRACE((end.destroys ? "destroyed in " : "terminated in ") + end.call);
        auto doomed = std::make_unique<CleanerRecorder>();
        replace(doomed.get());
        doomed->setHook([&](auto const& call) {
            if (call != end.call) {
                return;
            }
            EXPECT_EQ(doomed->calls(), end.calls);
            if (end.destroys) {
                cleaner.reset();
                doomed.reset();
            } else {
                cleaner->terminate();
            }
        });
        cleaner->clean("a", milliseconds(0));
        cleaner->clean("b", milliseconds(0));
        BlockingThread waiter(
            [which = cleaner.get()] { EXPECT_TRUE(which->waitAllTasks(LONG_DURATION)); });
        ASSERT_TRUE(waiter.isBlocked());
        expire();
        waiter.join();
        EXPECT_EQ(standIn->destroyed(), end.destroys);
        if (!end.destroys) {
            EXPECT_EQ(doomed->calls(), end.calls);
            EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
            cleaner.reset();
        }
    }
}

} // namespace
