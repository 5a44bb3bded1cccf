// Runs that meet one another, or the end of their discoverer.

#include "requestreply/blocking_thread.hpp"
#include "services/barrier.hpp"
#include "services/discoverer_frame.hpp"

#include <atomic>
#include <memory>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

void waitOut(milliseconds time) {
    auto const end = steady_clock::now() + time;
    EXPECT_TRUE(support::eventually([&] { return steady_clock::now() > end; }));
}

class ARunAfterAnother : public ADiscoverer {
protected:
    /// The first one has asked and got no answer.
    ARunAfterAnother() {
        retainLinks({"a"});
        EXPECT_FALSE(discoverer->discoverSync(1, true));
        letTheStepEnd();
    }
};

TEST_F(ARunAfterAnother, IsNotEndedByALateAnswerBeforeItHasItsList) {
    retain(ENTITIES, "");
    auto run = launch();
    ASSERT_TRUE(waitForSubscriptions(3));
    answerLate("late", 0);
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER));
    retainEntity("a");
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre(textsOf("a")));
}

TEST_F(ARunAfterAnother, IsNotEndedByALateList) {
    retain(ENTITIES, "");
    EXPECT_FALSE(discoverer->discoverSync(0, false));
    listLate({"late"});
    EXPECT_THAT(links(), ElementsAre("a"));
    answerLate("late", 0);
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER));
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ARunAfterAnother, StartsFromNothing) {
    retainLinks({"b", "c"});
    retainEntity("b");
    EXPECT_FALSE(discoverer->discoverSync(1, true));
    EXPECT_THAT(links(), ElementsAre("b", "c"));
    EXPECT_THAT(entities(), ElementsAre(textsOf("b"), PLACEHOLDER));
}

TEST_F(ADiscoverer, WaitsForNothingOnTheWorker) {
    auto other = launch(1);
    ASSERT_TRUE(waitForSubscriptions(1));
    script_->runInLoop([this](auto&) {
        EXPECT_FALSE(discoverer->discoverSync(WITHOUT_LIMIT, true));
        EXPECT_FALSE(discoverer->waitChange(WITHOUT_LIMIT, true));
    });
    EXPECT_FALSE(other.get());
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, MakesOneRunAfterTheOther) {
    auto first = launch();
    ASSERT_TRUE(waitForSubscriptions(1));
    bool result = false;
    BlockingThread second([&] { result = discoverer->discoverSync(1, false); });
    ASSERT_TRUE(second.isBlocked());
    // Its own time does not run yet.
    waitOut(milliseconds(1100));
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 1U);
    retainLinks({"b"});
    retainEntity("a");
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(first.get());
    second.join();
    EXPECT_TRUE(result);
    EXPECT_THAT(links(), ElementsAre("b"));
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER));
}

TEST_F(ADiscoverer, ToldToCleanUpEndsItsRunByTimeOut) {
    retainLinks({"a"});
    auto run = launch(1);
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    discoverer->cleanSubscriptions();
    EXPECT_THAT(subscribed(), IsEmpty());
    answer("a");
    answerLate("late", 0);
    EXPECT_FALSE(run.get());
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER));
}

TEST_F(ADiscoverer, ToldToCleanUpWhileItTakesAnAnswerEndsItsRunByTimeOut) {
    retainLinks({"a"});
    auto run = launch(1);
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    // Inside the client on its way to the broker; the other one holds up the answer from there on.
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
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER));
    script_->setHook(Operation::UNSUBSCRIBE, {});
}

TEST_F(ADiscoverer, ToldToCleanUpBeforeItHasAListTakesNone) {
    auto run = launch(1);
    ASSERT_TRUE(waitForSubscriptions(1));
    discoverer->cleanSubscriptions();
    listLate({"late"});
    EXPECT_FALSE(run.get());
    EXPECT_THAT(links(), IsEmpty());
    discoverer->cleanSubscriptions();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, WaitsWithoutLimitWhenToldSo) {
    for (auto const timeout : {WITHOUT_LIMIT, WITHOUT_LIMIT - 1}) {
        auto const before = script_->count(Operation::SUBSCRIBE);
        auto run = launch(timeout, false);
        ASSERT_TRUE(waitForSubscriptions(before + 1));
        // Longer than it ever sleeps in one go.
        waitOut(milliseconds(3200));
        EXPECT_TRUE(isUnderWay(run));
        deliver(ENTITIES, listOf({"a"}));
        EXPECT_TRUE(run.get());
    }
}

TEST_F(ADiscoverer, IsReadWhileItRuns) {
    std::atomic<bool> stop{false};
    auto reader = std::async(std::launch::async, [&] {
        while (!stop) {
            EXPECT_LE(discoverer->entities().size(), 20U);
            EXPECT_LE(discoverer->links().size(), 20U);
        }
    });
    Strings ids;
    for (int i = 0; i < 20; ++i) {
        ids.push_back(std::to_string(i));
        retainEntity(ids.back());
    }
    retainLinks(ids);
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    }
    stop = true;
    reader.wait();
}

// The end

class TheEndOfADiscoverer : public ADiscoverer {
protected:
    /// A run ends in a moment, so this is not for its object to be used after.
    std::future<bool> launchOn(Discoverer* which) {
        return std::async(std::launch::async,
                          [which] { return which->discoverSync(WITHOUT_LIMIT, true); });
    }
};

TEST_F(TheEndOfADiscoverer, LeavesNothingSubscribed) {
    retainLinks({"a"});
    auto run = launchOn(discoverer.get());
    ASSERT_TRUE(waitForSubscriptions(2));
    discoverer.reset();
    EXPECT_FALSE(run.get());
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(TheEndOfADiscoverer, LetsTheRunGoThatHasNoListYet) {
    auto run = launchOn(discoverer.get());
    ASSERT_TRUE(waitForSubscriptions(1));
    discoverer.reset();
    EXPECT_FALSE(run.get());
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(TheEndOfADiscoverer, LetsAllRunsGo) {
    bool first = true;
    bool second = true;
    auto* const which = discoverer.get();
    BlockingThread one([&] { first = which->discoverSync(WITHOUT_LIMIT, true); });
    ASSERT_TRUE(one.isBlocked());
    BlockingThread other([&] { second = which->discoverSync(WITHOUT_LIMIT, true); });
    ASSERT_TRUE(other.isBlocked());
    discoverer.reset();
    one.join();
    other.join();
    EXPECT_FALSE(first || second);
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 1U);
}

TEST_F(TheEndOfADiscoverer, ComesOnTheWorkerDuringARun) {
    retainLinks({"a"});
    auto run = launchOn(discoverer.get());
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    script_->runInLoop([&](auto&) { discoverer.reset(); });
    EXPECT_FALSE(run.get());
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
    answer("a");
}

TEST_F(TheEndOfADiscoverer, ComesInADeliveryOnTheSameTopic) {
    support::MessageRecorder killer([&](auto&&...) { discoverer.reset(); });
    ASSERT_EQ(client_->subscribe(ENTITIES, &killer, 0), mqtt::MqttClient::Error::SUCCESS);
    auto run = launchOn(discoverer.get());
    ASSERT_TRUE(waitForSubscriptions(2));
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_FALSE(run.get());
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 2U);
    client_->release(&killer);
}

TEST_F(TheEndOfADiscoverer, WaitsForTheListBeingHandled) {
    Barrier barrier;
    auto run = launchOn(discoverer.get());
    ASSERT_TRUE(waitForSubscriptions(1));
    script_->setHook(Operation::SUBSCRIBE, [&](auto const&) { return barrier.pass(); });
    script_->deliver(ENTITIES, listOf({"a", "b"}));
    ASSERT_TRUE(barrier.waitForVisitor());
    BlockingThread end([&] { discoverer.reset(); });
    ASSERT_TRUE(end.isBlocked());
    barrier.open();
    end.join();
    EXPECT_FALSE(run.get());
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 3U);
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(TheEndOfADiscoverer, WaitsForTheAnswerBeingHandled) {
    Barrier barrier;
    retainLinks({"a", "b"});
    auto run = launchOn(discoverer.get());
    ASSERT_TRUE(waitForSubscriptions(3));
    letTheStepEnd();
    script_->setHook(Operation::UNSUBSCRIBE, [&](auto const&) { return barrier.pass(); });
    script_->deliver("a/identification", identificationOf("a"));
    ASSERT_TRUE(barrier.waitForVisitor());
    BlockingThread end([&] { discoverer.reset(); });
    ASSERT_TRUE(end.isBlocked());
    barrier.open();
    end.join();
    EXPECT_FALSE(run.get());
    script_->setHook(Operation::UNSUBSCRIBE, {});
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

} // namespace
