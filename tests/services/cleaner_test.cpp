#include "mqtt/test/recorder.hpp"
#include "mqtt/test/watched.hpp"
#include "requestreply/blocking_thread.hpp"
#include "services/cleaner_fixture.hpp"

namespace {

using mqtt::TopicCleaner;
using mqtt::test::Delivery;
using mqtt::test::isSet;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(ACleaner, ConnectsWithACleanSessionOfItsOwn) {
    auto const id = mqtt::test::uniqueId();
    cleaner = std::make_unique<Cleaner>(&recorder, id, "there", 1234);
    standIn = support::StandIn::last();
    EXPECT_EQ(standIn->clientId(), id.base64URL());
    EXPECT_TRUE(standIn->cleanSession());
    ASSERT_THAT(standIn->calls(Operation::CONNECT), SizeIs(1));
    EXPECT_EQ(standIn->calls(Operation::CONNECT)[0].topic, "there");
    EXPECT_EQ(standIn->calls(Operation::CONNECT)[0].qos, 1234);
}

TEST_F(ACleaner, StartsWhenItsBrokerComes) {
    support::StandIn::onConstruction([](auto& made) { made.answer(Operation::CONNECT, {14}); });
    replace(&recorder);
    support::StandIn::onConstruction({});
    EXPECT_FALSE(standIn->connected());
    cleaner->clean("a", LONG_DURATION);
    ASSERT_TRUE(standIn->waitForCalls(Operation::SUBSCRIBE, 1));
    EXPECT_TRUE(standIn->connected());
}

// Requests

TEST_F(ACleaner, ErasesEveryMessageOnTheTopicsItSubscribes) {
    cleaner->clean("a/#", LONG_DURATION);
    cleaner->clean("b", LONG_DURATION);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a/#", "b"));
    EXPECT_EQ(standIn->calls(Operation::SUBSCRIBE)[0].qos, 0);
    deliver("a/x", "retained");
    standIn->deliver("a/y", std::string(1, '\0'), 2, false);
    deliver("a/z", "");
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("a/x", "a/y"));
    for (auto const& call : standIn->calls(Operation::PUBLISH)) {
        EXPECT_EQ(call.payload, "");
        EXPECT_EQ(call.qos, 2);
        EXPECT_TRUE(call.retain);
    }
}

TEST_F(ACleaner, ReportsATopicWithoutMessagesToo) {
    for (auto const duration : {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
        replace(&recorder);
        cleaner->clean("nothing/here", duration);
        EXPECT_TRUE(manual_timer::record().armed);
        EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
        expire();
        EXPECT_TRUE(cleaner->waitAllTasks(milliseconds(0)));
        EXPECT_THAT(standIn->calls(Operation::PUBLISH), IsEmpty());
        EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("nothing/here"));
        manual_timer::reset();
        expire();
        EXPECT_EQ(manual_timer::record().restarts, 0) << "none remains";
    }
    EXPECT_THAT(recorder.calls(),
                ElementsAre("nothing/here", ALL, "nothing/here", ALL, "nothing/here", ALL));
}

TEST_F(ACleaner, EndsRequestsInTheirOrderAndKeepsThoseThatAreNotDue) {
    cleaner->clean("lasting", LONG_DURATION);
    cleaner->clean("lasting", milliseconds(0)); // does not shorten it
    for (auto const* const topic : {"c", "a", "b"}) {
        cleaner->clean(topic, milliseconds(0));
    }
    cleaner->clean("endless", milliseconds::max());
    cleaner->clean("endless", milliseconds::max());
    expire();
    EXPECT_THAT(recorder.calls(), ElementsAre("c", "a", "b"));
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("c", "a", "b"));
    deliver("lasting", "x");
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("lasting"));
}

TEST_F(ACleaner, ReportsATopicThatCannotBeSubscribed) {
    for (auto const* const topic : {"", "a/#/b", "a+", "\xff"}) {
        cleaner->clean(topic, milliseconds(0));
    }
    cleaner->clean("#/a", LONG_DURATION);
    expire();
    EXPECT_THAT(recorder.calls(), ElementsAre("", "a/#/b", "a+", "\xff"));
    EXPECT_EQ(standIn->count(Operation::SUBSCRIBE), 0U);
    EXPECT_EQ(standIn->count(Operation::UNSUBSCRIBE), 0U);
}

// A second request for the same topic

TEST_F(ACleaner, ExtendsARunningRequestByThreeSecondsWhateverTheDuration) {
    EXPECT_EQ(TopicCleaner::NO_ACTIVITY_TIME, milliseconds(1000));
    EXPECT_EQ(TopicCleaner::TIMEOUT, milliseconds(3000));
    auto const begin = steady_clock::now();
    cleaner->clean("a", milliseconds(0));
    cleaner->clean("a", LONG_DURATION);
    auto const end = steady_clock::now();
    EXPECT_EQ(standIn->count(Operation::SUBSCRIBE), 1U);
    EXPECT_TRUE(mqtt::test::eventually([&] {
        auto const before = steady_clock::now();
        expire();
        auto const after = steady_clock::now();
        bool const ended = !recorder.calls().empty();
        EXPECT_TRUE(ended ? after >= begin + TopicCleaner::TIMEOUT
                          : before < end + TopicCleaner::TIMEOUT);
        return ended;
    }));
    EXPECT_THAT(recorder.calls(), ElementsAre("a", ALL));
}

TEST_F(ACleaner, TakesANewRequestWhileAnotherOneOfItsTopicEnds) {
    standIn->setAcknowledging(false);
    cleaner->clean("a", milliseconds(0));
    BlockingThread timer([] { expire(); });
    ASSERT_TRUE(standIn->waitForCalls(Operation::UNSUBSCRIBE, 1));
    cleaner->clean("a", LONG_DURATION);
    acknowledgeUnsubscription();
    timer.join();
    EXPECT_THAT(recorder.calls(), ElementsAre("a"));
    deliver("a", "x");
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("a"));
    EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
    standIn->setAcknowledging(true);
}

// The timer

void expectArmed(milliseconds period) {
    auto const record = manual_timer::record();
    EXPECT_TRUE(record.armed);
    EXPECT_TRUE(record.once);
    EXPECT_EQ(record.period, period);
    EXPECT_EQ(record.restarts, 1);
    manual_timer::reset();
}

TEST_F(ACleaner, ArmsItsTimerForTheFirstRequest) {
    expire();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_EQ(manual_timer::record().restarts, 0) << "without a request";
    cleaner->clean("a", LONG_DURATION);
    cleaner->clean("b", LONG_DURATION);
    expectArmed(TopicCleaner::NO_ACTIVITY_TIME);
}

TEST_F(ACleaner, ArmsItsTimerAgainWhileRequestsRemainAndAfterEveryMessage) {
    cleaner->clean("a", milliseconds(0));
    cleaner->clean("b", LONG_DURATION);
    manual_timer::reset();
    expire();
    expectArmed(TopicCleaner::NO_ACTIVITY_TIME);
    for (auto const* const payload : {"x", ""}) {
        deliver("b", payload);
        expectArmed(milliseconds(0));
    }
    EXPECT_THAT(recorder.calls(), ElementsAre("a"));
}

TEST_F(ACleaner, DoesNotCallItsListenerAfterALateMessage) {
    cleaner->clean("a", milliseconds(0));
    expire();
    // Being dispatched already when the subscription ended.
    standIn->runInLoop([&](auto&) { cleaner->onMqttMessage(1, "a", "late"); });
    EXPECT_TRUE(manual_timer::record().armed);
    expire();
    EXPECT_THAT(recorder.calls(), ElementsAre("a", ALL));
    EXPECT_THAT(topics(Operation::PUBLISH), ElementsAre("a"));
}

// Waiting

TEST_F(ACleaner, WaitsForRequestsNoLongerThanTheTimeout) {
    for (auto const timeout :
         {milliseconds(0), milliseconds(-1), milliseconds::min(), milliseconds::max()}) {
        EXPECT_TRUE(cleaner->waitAllTasks(timeout)) << "there are none";
    }
    cleaner->clean("a", LONG_DURATION);
    for (auto const timeout :
         {milliseconds(0), milliseconds(1), milliseconds(-1), milliseconds::min()}) {
        EXPECT_FALSE(cleaner->waitAllTasks(timeout));
    }
}

TEST_F(ACleaner, EndsAllWaitsAfterItsListenerWasCalledForTheLastRequest) {
    cleaner->clean("a", milliseconds(0));
    mqtt::test::Watched<bool> returned;
    auto const waitFor = [&](milliseconds timeout) {
        EXPECT_TRUE(cleaner->waitAllTasks(timeout));
        set(returned);
    };
    BlockingThread one([&] { waitFor(milliseconds::max()); });
    BlockingThread other([&] { waitFor(LONG_DURATION); });
    ASSERT_TRUE(one.isBlocked());
    ASSERT_TRUE(other.isBlocked());
    recorder.setHook([&](auto const&) {
        EXPECT_FALSE(returned.waitFor(isSet, milliseconds(300)));
        EXPECT_FALSE(cleaner->waitAllTasks(LONG_DURATION)) << "it would wait for itself";
        std::thread([&] { EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0))); }).join();
    });
    expire();
    one.join();
    other.join();
    EXPECT_THAT(recorder.calls(), ElementsAre("a", ALL));
}

// The listener

TEST_F(ACleaner, TakesARequestWhenAllWereDone) {
    recorder.setHook([&](auto const& call) {
        if (call == ALL && recorder.calls().size() == 2) {
            cleaner->clean("b", milliseconds(0));
        }
    });
    cleaner->clean("a", milliseconds(0));
    BlockingThread waiter([&] { EXPECT_TRUE(cleaner->waitAllTasks(LONG_DURATION)); });
    ASSERT_TRUE(waiter.isBlocked());
    expire();
    EXPECT_THAT(recorder.calls(), ElementsAre("a", ALL));
    EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
    EXPECT_TRUE(manual_timer::record().armed);
    expire();
    waiter.join();
    EXPECT_THAT(recorder.calls(), ElementsAre("a", ALL, "b", ALL));
}

/// One request, on a client of its own.
class ACleaningTask : public ACleaner {
protected:
    using Task = TopicCleaner::Task;

    ACleaningTask() { standIn = support::StandIn::last(); }

    std::unique_ptr<Task> task(std::string const& topic, milliseconds duration = LONG_DURATION) {
        return std::make_unique<Task>(client, topic, 7, duration, &subscriber);
    }

    mqtt::test::MessageRecorder subscriber;
    std::shared_ptr<mqtt::MqttClient> client = mqtt::test::testClient("host", 1883);
};

TEST_F(ACleaningTask, SubscribesFromItsStartToItsTerminationOrDestruction) {
    task("never started");
    auto const one = task("a/#");
    EXPECT_EQ(standIn->count(Operation::SUBSCRIBE), 0U);
    one->start();
    deliver("a/x", "text");
    EXPECT_THAT(subscriber.deliveries(), ElementsAre(Delivery{7, "a/x", "text"}));
    one->terminate();
    one->terminate();
    auto other = task("b");
    other->start();
    other.reset();
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), ElementsAre("a/#", "b"));
}

TEST_F(ACleaningTask, IsDoneWhenItsTimeHasPassedWhichMayChange) {
    auto const one = task("a", milliseconds(0));
    EXPECT_TRUE(one->isDone());
    EXPECT_TRUE(Task::isDone(*one));
    for (auto const extra : {LONG_DURATION, milliseconds::max(), milliseconds::max()}) {
        one->extendTimeout(extra);
        EXPECT_FALSE(one->isDone());
        EXPECT_FALSE(Task::isDone(*one));
    }
    auto const other = task("a", LONG_DURATION);
    EXPECT_FALSE(other->isDone());
    for (auto const extra : {-LONG_DURATION, milliseconds::min()}) {
        other->extendTimeout(extra);
        EXPECT_TRUE(other->isDone());
    }
}

TEST_F(ACleaningTask, EqualsTopicsOfItsText) {
    auto const one = task("a/#");
    EXPECT_TRUE(*one == mqtt::Topic("a/#"));
    EXPECT_TRUE(*one == mqtt::Topic("/a/#/"));
    for (auto const* const other : {"a/+", "a/x", "a", ""}) {
        EXPECT_FALSE(*one == mqtt::Topic(other));
    }
    EXPECT_EQ(one->topic().text(), "a/#");
}

} // namespace
