// Runs of a discoverer that follow one another, and a discoverer that is cleaned during a run.

#include "requestreply/blocking_thread.hpp"
#include "services/discoverer_fixture.hpp"

#include <memory>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

void waitAtLeast(milliseconds time) {
    auto const end = steady_clock::now() + time;
    EXPECT_TRUE(mqtt::test::eventually([&] { return steady_clock::now() > end; }));
}

class ARunAfterAnother : public ADiscoverer {
protected:
    /// The first one has timed out without an answer.
    ARunAfterAnother() {
        retainLinks({"a"});
        EXPECT_FALSE(discoverer->discoverSync(1, true));
        letTheStepEnd();
    }
};

TEST_F(ARunAfterAnother, IsNotEndedByALateAnswerBeforeItHasItsList) {
    retain(ENTITIES, "");
    auto run = startRun();
    ASSERT_TRUE(waitForSubscriptions(3));
    answerLate("late", 0);
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(entities(), ElementsAre(UNKNOWN));
    retainEntity("a");
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre("a"));
}

TEST_F(ARunAfterAnother, IsNotEndedByALateList) {
    retain(ENTITIES, "");
    EXPECT_FALSE(discoverer->discoverSync(0, false));
    listLate({"late"});
    EXPECT_THAT(links(), ElementsAre("a"));
    answerLate("late", 0);
    EXPECT_THAT(entities(), ElementsAre(UNKNOWN));
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, MakesOneRunAfterTheOther) {
    auto first = startRun();
    ASSERT_TRUE(waitForSubscriptions(1));
    bool result = false;
    BlockingThread second([&] { result = discoverer->discoverSync(1, false); });
    ASSERT_TRUE(second.isBlocked());
    // The timeout of the second run does not run yet.
    waitAtLeast(milliseconds(1100));
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 1U);
    retainLinks({"b"});
    retainEntity("a");
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(first.get());
    second.join();
    EXPECT_TRUE(result);
    EXPECT_THAT(links(), ElementsAre("b"));
    EXPECT_THAT(entities(), ElementsAre(UNKNOWN));
}

TEST_F(ADiscoverer, CleanedDuringAnAnswerTimesOut) {
    retainLinks({"a"});
    auto run = startRun(1);
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    // While the worker unsubscribes for the answer, another thread cleans.
    std::unique_ptr<BlockingThread> other;
    script_->setHook(Operation::UNSUBSCRIBE, [&](auto const&) {
        if (!other) {
            other = std::make_unique<BlockingThread>([this] { discoverer->cleanSubscriptions(); });
            EXPECT_TRUE(other->isBlocked());
        }
        return std::optional<int>();
    });
    answer("a");
    EXPECT_FALSE(run.get());
    EXPECT_THAT(entities(), ElementsAre(UNKNOWN));
    script_->setHook(Operation::UNSUBSCRIBE, {});
}

TEST_F(ADiscoverer, CleanedBeforeItHasAListTakesNone) {
    auto run = startRun(1);
    ASSERT_TRUE(waitForSubscriptions(1));
    discoverer->cleanSubscriptions();
    listLate({"late"});
    EXPECT_FALSE(run.get());
    EXPECT_THAT(links(), IsEmpty());
    discoverer->cleanSubscriptions();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, WaitsWithoutLimit) {
    for (auto const timeout : {NO_TIME_LIMIT, NO_TIME_LIMIT - 1}) {
        auto const before = script_->count(Operation::SUBSCRIBE);
        auto run = startRun(timeout, false);
        ASSERT_TRUE(waitForSubscriptions(before + 1));
        // Longer than each of its waits on the condition.
        waitAtLeast(milliseconds(3200));
        EXPECT_TRUE(isUnderWay(run));
        deliver(ENTITIES, listOf({"a"}));
        EXPECT_TRUE(run.get());
    }
}

} // namespace
