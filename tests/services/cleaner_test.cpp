#include "requestreply/blocking_thread.hpp"
#include "services/cleaner_on_a_script.hpp"
#include "support/allocations.hpp"
#include "support/watched.hpp"

#include <stdexcept>
#include <system_error>

namespace {

using mqtt::TopicCleaner;
using std::chrono::milliseconds;
using support::isSet;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST(TheTimesOfACleaner, AreOneSecondAndThree) {
    EXPECT_EQ(TopicCleaner::NO_ACTIVITY_TIME, milliseconds(1000));
    EXPECT_EQ(TopicCleaner::TIMEOUT, milliseconds(3000));
}

TEST_F(ACleaner, ConnectsWithACleanSessionOfItsOwn) {
    auto const id = support::uniqueId();
    cleaner = std::make_unique<Cleaner>(&recorder, id, "there", 1234);
    script = support::StandIn::last();
    EXPECT_EQ(script->clientId(), id.base64URL());
    EXPECT_TRUE(script->cleanSession());
    ASSERT_THAT(script->calls(Operation::CONNECT), SizeIs(1));
    EXPECT_EQ(script->calls(Operation::CONNECT)[0].topic, "there");
    EXPECT_EQ(script->calls(Operation::CONNECT)[0].qos, 1234);
}

// Requests

TEST_F(ACleaner, SubscribesToWhatItCleans) {
    cleaner->clean("a/#", AN_HOUR);
    cleaner->clean("b", AN_HOUR);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a/#", "b"));
    EXPECT_EQ(script->calls(Operation::SUBSCRIBE)[0].qos, 0);
}

TEST_F(ACleaner, ErasesEveryMessageOnItsOwnTopic) {
    cleaner->clean("a/#", AN_HOUR);
    deliver("a/x", "retained");
    script->deliver("a/y", std::string(1, '\0'), 2, false);
    deliver("a/z", "");
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("a/x", "a/y"));
    for (auto const& call : script->calls(Operation::PUBLISH)) {
        EXPECT_EQ(call.payload, "");
        EXPECT_EQ(call.qos, 2);
        EXPECT_TRUE(call.retain);
    }
}

TEST_F(ACleaner, ReportsATopicWithoutMessagesToo) {
    for (std::size_t round = 1; round <= 3; ++round) {
        cleaner->clean("nothing/here", milliseconds(0));
        EXPECT_TRUE(manual_timer::record().armed);
        look();
        EXPECT_THAT(recorder.told(), SizeIs(2 * round));
        EXPECT_EQ(recorder.told()[2 * round - 2], "nothing/here");
        EXPECT_EQ(recorder.told().back(), ALL);
        manual_timer::reset();
    }
    EXPECT_THAT(script->calls(Operation::PUBLISH), IsEmpty());
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE),
                ElementsAre("nothing/here", "nothing/here", "nothing/here"));
}

TEST_F(ACleaner, EndsRequestsInTheOrderTheyWereMade) {
    for (auto const* const topic : {"c", "a", "b"}) {
        cleaner->clean(topic, milliseconds(0));
    }
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("c", "a", "b", ALL));
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("c", "a", "b"));
}

TEST_F(ACleaner, KeepsRequestsThatAreNotDue) {
    cleaner->clean("a", AN_HOUR);
    cleaner->clean("b", milliseconds(0));
    cleaner->clean("c", AN_HOUR);
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("b"));
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("b"));
    deliver("c", "x");
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("c"));
}

TEST_F(ACleaner, EndsRequestsWithoutTimeWhenItLooks) {
    for (auto const duration : {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
        cleaner->clean("a", duration);
        EXPECT_EQ(manual_timer::record().period, TopicCleaner::NO_ACTIVITY_TIME);
        EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
        look();
        EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
    }
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL, "a", ALL, "a", ALL));
}

TEST_F(ACleaner, KeepsRequestsWithAllTheTimeThereIs) {
    cleaner->clean("a", milliseconds::max());
    cleaner->clean("a", milliseconds::max());
    cleaner->clean("b", milliseconds::max() - milliseconds(1));
    look();
    EXPECT_THAT(recorder.told(), IsEmpty());
    EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(1)));
}

TEST_F(ACleaner, GivesEveryRequestANumber) {
    struct Numbered : TopicCleaner {
        using TopicCleaner::TopicCleaner;
        ~Numbered() override { terminate(); }
        void onMqttMessage(int tag, mqtt::Topic const&, std::string const&) override {
            tags.change([&](auto& all) { all.push_back(tag); });
        }
        support::Watched<std::vector<int>> tags;
    };
    auto own = std::make_unique<Numbered>(nullptr, support::uniqueId(), "host", 1883);
    auto const& tags = own->tags;
    script = support::StandIn::last();
    for (auto const* const topic : {"a", "b", "b", "c"}) {
        own->clean(topic, AN_HOUR);
    }
    for (auto const* const topic : {"c", "b", "a"}) {
        deliver(topic, "x");
    }
    EXPECT_THAT(tags.copy(), ElementsAre(3, 2, 1));
    cleaner = std::move(own);
}

TEST_F(ACleaner, ReportsATopicThatTheBrokerRefuses) {
    for (auto const* const topic : {"", "a/#/b", "a+", "\xff"}) {
        cleaner->clean(topic, milliseconds(0));
    }
    cleaner->clean("#/a", AN_HOUR);
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("", "a/#/b", "a+", "\xff"));
    EXPECT_EQ(script->count(Operation::SUBSCRIBE), 0U);
    EXPECT_EQ(script->count(Operation::UNSUBSCRIBE), 0U);
}

TEST_F(ACleaner, NeedsNoListener) {
    replace(nullptr);
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
}

// A second request for the same topic

TEST_F(ACleaner, GivesARunningRequestThreeSecondsMoreWhateverTheDuration) {
    auto const begin = steady_clock::now();
    cleaner->clean("a", milliseconds(0));
    cleaner->clean("a", AN_HOUR);
    auto const end = steady_clock::now();
    EXPECT_EQ(script->count(Operation::SUBSCRIBE), 1U);
    EXPECT_TRUE(support::eventually([&] {
        auto const before = steady_clock::now();
        look();
        auto const after = steady_clock::now();
        bool const ended = !recorder.told().empty();
        EXPECT_TRUE(ended ? after >= begin + TopicCleaner::TIMEOUT
                          : before < end + TopicCleaner::TIMEOUT);
        return ended;
    }));
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL));
}

TEST_F(ACleaner, NeverMakesARunningRequestShorter) {
    cleaner->clean("a", AN_HOUR);
    cleaner->clean("a", milliseconds(0));
    cleaner->clean("a", milliseconds::min());
    look();
    EXPECT_THAT(recorder.told(), IsEmpty());
}

TEST_F(ACleaner, TakesAnotherTextForAnotherRequest) {
    for (auto const* const topic : {"a/+", "a/#", "a/x", "/a/x/", "A/x"}) {
        cleaner->clean(topic, milliseconds(0));
    }
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a/+", "a/#", "a/x", "A/x"));
}

TEST_F(ACleaner, CleansATopicAgainOnceItsRequestHasEnded) {
    cleaner->clean("a", milliseconds(0));
    look();
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL, "a", ALL));
}

TEST_F(ACleaner, TakesANewRequestWhileAnotherOneOfItsTopicEnds) {
    script->setAcknowledging(false);
    cleaner->clean("a", milliseconds(0));
    BlockingThread timer([] { look(); });
    ASSERT_TRUE(script->waitForCalls(Operation::UNSUBSCRIBE, 1));
    cleaner->clean("a", AN_HOUR);
    acknowledgeUnsubscription();
    timer.join();
    EXPECT_THAT(recorder.told(), ElementsAre("a"));
    deliver("a", "x");
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("a"));
    EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
    script->setAcknowledging(true);
}

// The timer

TEST_F(ACleaner, IsIdleWithoutARequest) {
    EXPECT_EQ(manual_timer::record().restarts, 0);
    look();
    look();
    EXPECT_THAT(recorder.told(), IsEmpty());
    EXPECT_EQ(manual_timer::record().restarts, 0);
}

TEST_F(ACleaner, ArmsItsTimerForTheFirstRequest) {
    cleaner->clean("a", AN_HOUR);
    auto const record = manual_timer::record();
    EXPECT_TRUE(record.armed);
    EXPECT_TRUE(record.once);
    EXPECT_EQ(record.period, TopicCleaner::NO_ACTIVITY_TIME);
    cleaner->clean("b", AN_HOUR);
    EXPECT_EQ(manual_timer::record().restarts, 1);
}

TEST_F(ACleaner, LooksAgainAsLongAsRequestsAreLeft) {
    cleaner->clean("a", AN_HOUR);
    manual_timer::reset();
    look();
    auto const record = manual_timer::record();
    EXPECT_TRUE(record.armed);
    EXPECT_TRUE(record.once);
    EXPECT_EQ(record.period, TopicCleaner::NO_ACTIVITY_TIME);
}

TEST_F(ACleaner, LooksNoMoreWhenNoneIsLeft) {
    cleaner->clean("a", milliseconds(0));
    manual_timer::reset();
    look();
    EXPECT_EQ(manual_timer::record().restarts, 0);
}

TEST_F(ACleaner, LooksPromptlyAfterEveryMessage) {
    cleaner->clean("a", AN_HOUR);
    for (auto const* const payload : {"x", ""}) {
        manual_timer::reset();
        deliver("a", payload);
        auto const record = manual_timer::record();
        EXPECT_TRUE(record.armed);
        EXPECT_TRUE(record.once);
        EXPECT_EQ(record.period, milliseconds(0));
    }
}

TEST_F(ACleaner, TellsThatAllIsDoneOncePerEmptying) {
    cleaner->clean("a", milliseconds(0));
    cleaner->clean("b", AN_HOUR);
    look();
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a"));
    cleaner->terminate();
    replace(&recorder);
    cleaner->clean("c", milliseconds(0));
    for (int i = 0; i < 3; ++i) {
        look();
    }
    EXPECT_THAT(recorder.told(), ElementsAre("a", "c", ALL));
}

TEST_F(ACleaner, SaysNothingAfterALateMessage) {
    cleaner->clean("a", milliseconds(0));
    look();
    // Dispatched already when the subscription ended.
    script->runInLoop([&](auto&) { cleaner->onMqttMessage(1, "a", "late"); });
    EXPECT_TRUE(manual_timer::record().armed);
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL));
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("a"));
}

// Waiting

TEST_F(ACleaner, HasNothingToWaitForWithoutARequest) {
    for (auto const timeout :
         {milliseconds(0), milliseconds(-1), milliseconds::min(), milliseconds::max()}) {
        EXPECT_TRUE(cleaner->waitAllTasks(timeout));
    }
}

TEST_F(ACleaner, WaitsNoLongerThanItIsTold) {
    cleaner->clean("a", AN_HOUR);
    for (auto const timeout :
         {milliseconds(0), milliseconds(1), milliseconds(-1), milliseconds::min()}) {
        EXPECT_FALSE(cleaner->waitAllTasks(timeout));
    }
}

TEST_F(ACleaner, LetsAllWaitersGoWhenTheLastRequestHasEnded) {
    cleaner->clean("a", milliseconds(0));
    bool ended = false;
    bool endedToo = false;
    BlockingThread one([&] { ended = cleaner->waitAllTasks(milliseconds::max()); });
    BlockingThread other([&] { endedToo = cleaner->waitAllTasks(AN_HOUR); });
    ASSERT_TRUE(one.isBlocked());
    ASSERT_TRUE(other.isBlocked());
    look();
    one.join();
    other.join();
    EXPECT_TRUE(ended && endedToo);
}

TEST_F(ACleaner, TellsItsListenerBeforeThoseWhoWait) {
    support::Watched<bool> returned;
    cleaner->clean("a", milliseconds(0));
    BlockingThread waiter([&] {
        EXPECT_TRUE(cleaner->waitAllTasks(AN_HOUR));
        set(returned);
    });
    ASSERT_TRUE(waiter.isBlocked());
    recorder.setHook([&](auto const&) {
        EXPECT_FALSE(returned.waitFor(isSet, A_WHILE));
        EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0))) << "not told of all yet";
    });
    look();
    waiter.join();
}

// The listener

TEST_F(ACleaner, MayBeAskedForMoreWhenATopicIsDone) {
    recorder.setHook([&](auto const& what) {
        if (what == "a") {
            cleaner->clean("b", milliseconds(0));
        }
    });
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a", "b", ALL));
}

TEST_F(ACleaner, MayBeAskedForTheSameTopicWhenItIsDone) {
    recorder.setHook([&](auto const&) { cleaner->clean("a", AN_HOUR); });
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a"));
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a", "a"));
    EXPECT_TRUE(manual_timer::record().armed);
}

TEST_F(ACleaner, MayBeAskedForMoreWhenAllIsDone) {
    recorder.setHook([&](auto const& what) {
        if (what == ALL && recorder.told().size() == 2) {
            cleaner->clean("b", milliseconds(0));
        }
    });
    cleaner->clean("a", milliseconds(0));
    BlockingThread waiter([&] { EXPECT_TRUE(cleaner->waitAllTasks(AN_HOUR)); });
    ASSERT_TRUE(waiter.isBlocked());
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL));
    EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
    EXPECT_TRUE(manual_timer::record().armed);
    look();
    waiter.join();
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL, "b", ALL));
}

TEST_F(ACleaner, EndsAllRequestsAlsoWhenItsListenerThrows) {
    recorder.setHook([](auto const&) { throw std::runtime_error("from a listener"); });
    for (auto const* const topic : {"a", "b"}) {
        cleaner->clean(topic, milliseconds(0));
    }
    BlockingThread waiter([&] { EXPECT_TRUE(cleaner->waitAllTasks(AN_HOUR)); });
    ASSERT_TRUE(waiter.isBlocked());
    look();
    waiter.join();
    EXPECT_THAT(recorder.told(), ElementsAre("a", "b", ALL));
}

TEST_F(ACleaner, DoesNotWaitForItselfInItsListener) {
    std::vector<bool> done;
    recorder.setHook([&](auto const&) { done.push_back(cleaner->waitAllTasks(AN_HOUR)); });
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_THAT(done, ElementsAre(false, false));
}

TEST_F(ACleaner, IsUsedByOthersWhileItsListenerIsCalled) {
    recorder.setHook([&](auto const& what) {
        std::thread([&] {
            EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
            if (what == "a") {
                cleaner->clean("b", milliseconds(0));
            }
        }).join();
    });
    cleaner->clean("a", milliseconds(0));
    look();
    EXPECT_THAT(recorder.told(), ElementsAre("a", "b", ALL));
}

// Without what it needs

TEST_F(ACleaner, MakesNoRequestWithoutAThread) {
    manual_timer::onRestart([] {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    });
    EXPECT_THROW(cleaner->clean("a", AN_HOUR), std::system_error);
    EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
    manual_timer::reset();
    cleaner->clean("a", AN_HOUR);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a"));
}

class ACleanerWithoutMemory : public ACleaner {
protected:
    /// Counts without asking for memory.
    struct Counter final : Cleaner::Listener {
        void onTopicCleaned(mqtt::Topic const&) override { ++topics; }
        void onAllTopicsCleaned() override { ++all; }
        unsigned topics = 0;
        unsigned all = 0;
    };

    ACleanerWithoutMemory() { replace(&counter); }
    ~ACleanerWithoutMemory() override { cleaner.reset(); }

    Counter counter;
    mqtt::Topic const topic = "a/name-of-more-than-fifteen-bytes";
};

TEST_F(ACleanerWithoutMemory, MakesNoRequest) {
    auto const failures =
        support::failEachAllocation([&] { cleaner->clean(topic, milliseconds(0)); },
                                    [&](unsigned which) {
                                        EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)))
                                            << which;
                                        look();
                                        EXPECT_EQ(counter.topics + counter.all, 0U) << which;
                                    });
    EXPECT_GE(failures, 5U);
    EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
}

TEST_F(ACleanerWithoutMemory, EndsARequestWhenItLooksAgain) {
    bool lacking = true;
    for (unsigned which = 1; lacking; ++which) {
        cleaner->clean(topic, milliseconds(0));
        {
            support::FailingAllocation const failing(which);
            look();
            lacking = failing.happened();
        }
        EXPECT_TRUE(counter.all == which || manual_timer::record().armed);
        look();
        EXPECT_EQ(counter.topics, which);
        EXPECT_EQ(counter.all, which);
    }
    EXPECT_GE(counter.all, 2U);
}

} // namespace
