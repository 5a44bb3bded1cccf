#include "client/client_on_a_script.hpp"

#include <mqtt/topic_cleaner.hpp>

#include <gmock/gmock.h>

namespace {

using mqtt::TopicCleaner;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Delivery;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Operation = support::StandIn::Operation;

constexpr milliseconds AN_HOUR{3600000};

class ACleaningTask : public AClientOnAScript {
protected:
    using Task = TopicCleaner::Task;

    ACleaningTask() { connect(); }

    std::unique_ptr<Task> task(std::string const& topic = "a/#", milliseconds duration = AN_HOUR) {
        return std::make_unique<Task>(client, topic, 7, duration, &subscriber_);
    }

    /// The fixture's, which goes on owning it.
    std::shared_ptr<mqtt::MqttClient> client{client_.get(), [](auto*) {}};
};

TEST_F(ACleaningTask, HandsMessagesToItsSubscriberOnceStarted) {
    auto const one = task();
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
    one->start();
    script_->deliver("a/x", "text");
    ASSERT_TRUE(subscriber_.waitForCount(1));
    EXPECT_THAT(subscriber_.deliveries(), ElementsAre(Delivery{7, "a/x", "text"}));
}

TEST_F(ACleaningTask, UnsubscribesWhenToldTo) {
    auto const one = task();
    one->start();
    one->terminate();
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(1));
    EXPECT_EQ(script_->calls(Operation::UNSUBSCRIBE)[0].topic, "a/#");
    one->terminate();
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(1));
}

TEST_F(ACleaningTask, WaitsForTheEndOfItsSubscription) {
    auto one = task();
    one->start();
    script_->setAcknowledging(false);
    std::atomic<bool> acknowledged{false};
    script_->setHook(Operation::UNSUBSCRIBE, [&](auto const& call) {
        script_->post([&, mid = call.mid](auto& object) {
            acknowledged = true;
            object.on_unsubscribe(mid);
        });
        return std::optional<int>();
    });
    one.reset();
    EXPECT_TRUE(acknowledged);
    script_->setHook(Operation::UNSUBSCRIBE, {});
}

TEST_F(ACleaningTask, UnsubscribesWhenItDies) {
    task()->start();
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), SizeIs(1));
}

TEST_F(ACleaningTask, NeverStartedHasNothingToEnd) {
    task();
    EXPECT_THAT(script_->calls(Operation::UNSUBSCRIBE), IsEmpty());
}

TEST_F(ACleaningTask, IsDoneWhenItsTimeHasPassed) {
    for (auto const duration : {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
        EXPECT_TRUE(task("a", duration)->isDone());
        EXPECT_TRUE(Task::isDone(*task("a", duration)));
    }
    for (auto const duration : {AN_HOUR, milliseconds::max(), milliseconds::max() / 1000}) {
        EXPECT_FALSE(task("a", duration)->isDone());
        EXPECT_FALSE(Task::isDone(*task("a", duration)));
    }
}

TEST_F(ACleaningTask, CountsItsTimeFromTheBeginning) {
    auto const begin = steady_clock::now();
    auto const one = task("a", milliseconds(200));
    auto const end = steady_clock::now();
    EXPECT_TRUE(support::eventually([&] {
        auto const before = steady_clock::now();
        bool const done = one->isDone();
        EXPECT_TRUE(done ? steady_clock::now() >= begin + milliseconds(200)
                         : before < end + milliseconds(200));
        return done;
    }));
}

TEST_F(ACleaningTask, GetsTheTimeThatItIsGivenOnTop) {
    auto const one = task("a", milliseconds(0));
    one->extendTimeout(AN_HOUR);
    EXPECT_FALSE(one->isDone());
    one->extendTimeout(milliseconds::max());
    EXPECT_FALSE(one->isDone());
    one->extendTimeout(milliseconds::max());
    EXPECT_FALSE(one->isDone());
}

TEST_F(ACleaningTask, LosesTheTimeThatIsTakenFromIt) {
    auto const one = task("a", 2 * AN_HOUR);
    one->extendTimeout(-AN_HOUR);
    EXPECT_FALSE(one->isDone());
    one->extendTimeout(-AN_HOUR);
    EXPECT_TRUE(one->isDone());
    one->extendTimeout(milliseconds::min());
    EXPECT_TRUE(one->isDone());
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
