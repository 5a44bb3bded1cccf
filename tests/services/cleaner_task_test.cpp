#include "mqtt/mosquittopp.hpp"
#include "services/cleaner_recorder.hpp"
#include "support/recorder.hpp"
#include "support/stand_in/stand_in.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>

#include <atomic>

namespace {

using mqtt::TopicCleaner;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Delivery;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Operation = support::StandIn::Operation;

class ACleaningTask : public testing::Test {
protected:
    using Task = TopicCleaner::Task;

    std::unique_ptr<Task> task(std::string const& topic = "a/#",
                               milliseconds duration = LONG_DURATION) {
        return std::make_unique<Task>(client, topic, 7, duration, &subscriber);
    }

    std::vector<support::StandIn::Call> unsubscriptions() const {
        return standIn->calls(Operation::UNSUBSCRIBE);
    }

    support::MessageRecorder subscriber;
    std::shared_ptr<mqtt::MqttClient> client = support::testClient("host", 1883);
    std::shared_ptr<support::StandIn> standIn = support::StandIn::last();
};

TEST_F(ACleaningTask, SubscribesFromItsStartToItsTermination) {
    auto const one = task();
    EXPECT_EQ(standIn->count(Operation::SUBSCRIBE), 0U);
    one->start();
    standIn->deliver("a/x", "text");
    ASSERT_TRUE(subscriber.waitForCount(1));
    EXPECT_THAT(subscriber.deliveries(), ElementsAre(Delivery{7, "a/x", "text"}));
    one->terminate();
    one->terminate();
    ASSERT_THAT(unsubscriptions(), SizeIs(1));
    EXPECT_EQ(unsubscriptions()[0].topic, "a/#");
}

TEST_F(ACleaningTask, WaitsForTheEndOfItsSubscriptionInItsDestructor) {
    task();
    EXPECT_THAT(unsubscriptions(), IsEmpty()) << "it was never started";
    auto one = task();
    one->start();
    standIn->setAcknowledging(false);
    std::atomic<bool> acknowledged{false};
    standIn->setHook(Operation::UNSUBSCRIBE, [&](auto const& call) {
        standIn->post([&, mid = call.mid](auto& object) {
            acknowledged = true;
            object.on_unsubscribe(mid);
        });
        return std::optional<int>();
    });
    one.reset();
    EXPECT_TRUE(acknowledged);
    standIn->setHook(Operation::UNSUBSCRIBE, {});
}

TEST_F(ACleaningTask, IsDoneWhenItsTimeHasPassed) {
    for (auto const duration : {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
        EXPECT_TRUE(task("a", duration)->isDone());
        EXPECT_TRUE(Task::isDone(*task("a", duration)));
    }
    for (auto const duration : {LONG_DURATION, milliseconds::max(), milliseconds::max() / 1000}) {
        EXPECT_FALSE(task("a", duration)->isDone());
        EXPECT_FALSE(Task::isDone(*task("a", duration)));
    }
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

TEST_F(ACleaningTask, CanBeExtendedAndShortened) {
    auto const one = task("a", milliseconds(0));
    for (auto const extra : {LONG_DURATION, milliseconds::max(), milliseconds::max()}) {
        one->extendTimeout(extra);
        EXPECT_FALSE(one->isDone());
    }
    auto const other = task("a", 2 * LONG_DURATION);
    other->extendTimeout(-LONG_DURATION);
    EXPECT_FALSE(other->isDone());
    other->extendTimeout(-LONG_DURATION);
    EXPECT_TRUE(other->isDone());
    other->extendTimeout(milliseconds::min());
    EXPECT_TRUE(other->isDone());
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
