// Setting, getting, waiting for a value, and subscribing with a function.

#include "data/an_endpoint.hpp"
#include "mqtt/test/watched.hpp"
#include "requestreply/blocking_thread.hpp"
#include "support/allocations.hpp"

#include <mqtt/link.hpp>

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>

namespace {

using mqtt::Link;
using mqtt::MqttData;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = mqtt::MqttClient::Error;
using Lock = mqtt::MqttDataBase::Lock;
using Operation = support::StandIn::Operation;
using Subscription = mqtt::Subscription<Link>;

constexpr std::chrono::hours LONG{1};

class AnEndpointOfLinks : public AClientOnAScript {
protected:
    AnEndpointOfLinks() { connect(); }

    /// Returns when the message has been handled, but not on the worker.
    void deliverPayload(std::string const& payload) {
        script_->deliver("a/b", payload);
        letTheStepEnd();
    }
    void deliver(std::string const& id) { deliverPayload(document(id)); }
    static std::string document(std::string const& id) { return R"({"@id": ")" + id + R"("})"; }

    void expectNoSubscriptionIsLeft() const {
        EXPECT_EQ(script_->count(Operation::SUBSCRIBE), script_->count(Operation::UNSUBSCRIBE));
    }

    std::optional<MqttData<Link>> endpoint{std::in_place, *client_, "a/b"};
    mqtt::test::Watched<std::vector<std::string>> seen;
    Subscription::Function const record = [this](Link const& link, bool empty) {
        seen.change([&](auto& all) { all.push_back(link.id + (empty ? " empty" : "")); });
    };
};

// Setting and getting

TEST_F(AnEndpointOfLinks, SetsAndPublishesAValueAndReportsTheResult) {
    EXPECT_EQ(endpoint->publish({"x"}), Error::SUCCESS);
    EXPECT_EQ(endpoint->get().id, "x");
    EXPECT_EQ(endpoint->publishWait({"y"}), Error::SUCCESS);
    EXPECT_EQ(endpoint->get().id, "y");
    EXPECT_TRUE(isFree(*endpoint));
    EXPECT_THAT(published(), ElementsAre("{\n  \"@id\": \"x\"\n}", "{\n  \"@id\": \"y\"\n}"));
    script_->answer(Operation::PUBLISH, {9, 9});
    EXPECT_EQ(endpoint->publish({"z"}), Error::PAYLOAD_SIZE);
    EXPECT_EQ(endpoint->publishWait({"z"}), Error::PAYLOAD_SIZE);
}

TEST_F(AnEndpointOfLinks, PublishesNothingWithoutMemory) {
    Link const value{std::string(100, 'x')};
    auto const before = published().size();
    support::failEachAllocation([&] { endpoint->publish(value); },
                                [&](unsigned /*which*/) {
                                    support::UncountedAllocations const uncounted;
                                    EXPECT_EQ(published().size(), before);
                                    EXPECT_TRUE(isFree(*endpoint));
                                });
    EXPECT_EQ(published().size(), before + 1);
}

// Subscribing with a function

TEST_F(AnEndpointOfLinks, CallsAFunctionForEachValueUntilTheSubscriptionEnds) {
    endpoint->value.id = "own";
    auto subscription = endpoint->subscribe(record);
    EXPECT_EQ(subscription.result(), Error::SUCCESS);
    deliver("x");
    deliverPayload("{"); // cannot be read
    deliverPayload("");
    deliver("y");
    subscription = {};
    EXPECT_EQ(subscription.result(), Error::NOT_FOUND);
    deliver("z");
    EXPECT_THAT(seen.copy(), ElementsAre("x", "x empty", "y"));
    EXPECT_EQ(endpoint->get().id, "own");
    expectNoSubscriptionIsLeft();
}

TEST_F(AnEndpointOfLinks, CallsSeveralFunctionsWithNoLockHeldAndWhateverTheyThrow) {
    auto const first = endpoint->subscribe([this](Link const&, bool) {
        EXPECT_TRUE(isFree(*endpoint));
        EXPECT_EQ(endpoint->publish({"published"}), Error::SUCCESS);
        throw std::runtime_error("no");
    });
    auto const second = endpoint->subscribe(record);
    deliver("x");
    deliver("y");
    EXPECT_THAT(seen.copy(), ElementsAre("x", "y"));
    EXPECT_EQ(published().size(), 2U);
}

TEST_F(AnEndpointOfLinks, HasASubscriptionThatMovesWithItsResult) {
    auto first = endpoint->subscribe(record);
    auto second = std::move(first);
    EXPECT_EQ(first.result(), Error::NOT_FOUND);
    EXPECT_EQ(second.result(), Error::SUCCESS);
    first = std::move(second);
    EXPECT_EQ(first.result(), Error::SUCCESS);
    EXPECT_EQ(second.result(), Error::NOT_FOUND);
    deliver("x");
    EXPECT_THAT(seen.copy(), ElementsAre("x"));
}

TEST_F(AnEndpointOfLinks, SubscribesWhereADerivedClassSays) {
    struct Elsewhere final : MqttData<Link> {
        using MqttData<Link>::MqttData;
        ~Elsewhere() override { release(); }
        void getSubscribeTopic(mqtt::Topic& topic) override { topic = topicBase() + "answer"; }
    };
    auto const subscription = Elsewhere(*client_, "a/b").subscribe(record);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a/b/answer"));
}

TEST_F(AnEndpointOfLinks, ReportsWhyAFunctionIsNotSubscribed) {
    EXPECT_EQ(endpoint->subscribe({}).result(), Error::INVALID_PARAMETER);
    MqttData<Link> invalid(*client_, "a/#/b");
    auto subscription = invalid.subscribe(record);
    EXPECT_EQ(subscription.result(), Error::INVALID_PARAMETER);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
    Link received;
    EXPECT_EQ(invalid.waitForNext(received, LONG), Error::INVALID_PARAMETER);
}

TEST_F(AnEndpointOfLinks, HasASubscriptionThatMayEndInItsOwnCall) {
    Subscription subscription;
    auto const captured = std::make_shared<std::string>("kept until the call returns");
    std::weak_ptr<std::string> const isKept = captured;
    subscription = endpoint->subscribe([&, kept = captured](Link const& link, bool empty) {
        subscription = {};
        EXPECT_EQ(kept->size(), 27U);
        record(link, empty);
    });
    script_->deliver("a/b", document("x"));
    deliver("y");
    EXPECT_THAT(seen.copy(), ElementsAre("x"));
    EXPECT_EQ(isKept.use_count(), 1) << "the function is destroyed";
    expectNoSubscriptionIsLeft();
}

TEST_F(AnEndpointOfLinks, SubscribesNothingWithoutMemory) {
    auto const failures =
        support::failEachAllocation([&] { endpoint->subscribe(record).result(); },
                                    [&](unsigned which) {
                                        support::UncountedAllocations const uncounted;
                                        expectNoSubscriptionIsLeft();
                                        SCOPED_TRACE(which);
                                        deliver("x");
                                        EXPECT_THAT(seen.copy(), IsEmpty());
                                    });
    EXPECT_GT(failures, 2U);
}

// Waiting

class AWaitForALink : public AnEndpointOfLinks {
protected:
    /// Returns when the broker has the subscription of one more wait.
    void awaitSubscription() {
        ASSERT_TRUE(script_->waitForCalls(Operation::SUBSCRIBE, ++waits));
        letTheStepEnd();
    }
    Error waitFor(std::string const& id, std::chrono::seconds timeout = LONG) {
        return endpoint->waitFor(
            received, [&](Link const& link) { return link.id == id; }, timeout);
    }

    Link received{"before"};
    std::size_t waits = 0;
};

TEST_F(AWaitForALink, EndsWithTheNextOneOrTheWantedOne) {
    for (bool const next : {true, false}) {
        Error result{};
        BlockingThread waiting(
            [&] { result = next ? endpoint->waitForNext(received, LONG) : waitFor("y"); });
        awaitSubscription();
        deliverPayload("");
        deliverPayload("{");
        deliver("x");
        deliver("y");
        deliver("z");
        waiting.join();
        EXPECT_EQ(result, Error::SUCCESS);
        EXPECT_EQ(received.id, next ? "x" : "y");
    }
    EXPECT_EQ(endpoint->get().id, "");
    expectNoSubscriptionIsLeft();
}

TEST_F(AWaitForALink, EndsByTimeOutAndLeavesTheValue) {
    for (auto const timeout : {std::chrono::seconds(0), std::chrono::seconds(-1),
                               std::chrono::seconds::min(), std::chrono::seconds(1)}) {
        EXPECT_EQ(waitFor("x", timeout), Error::TIMEOUT);
    }
    EXPECT_EQ(received.id, "before");
    expectNoSubscriptionIsLeft();
}

TEST_F(AWaitForALink, DoesNotWaitOnTheWorker) {
    script_->runInLoop([&](auto&) {
        EXPECT_EQ(waitFor("x"), Error::TIMEOUT);
        EXPECT_EQ(endpoint->waitForNext(received, LONG), Error::TIMEOUT);
    });
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
}

TEST_F(AWaitForALink, PassesOnWhatItsFunctionThrows) {
    BlockingThread waiting([&] {
        EXPECT_THROW(endpoint->waitFor(
                         received, [](Link const&) -> bool { throw std::out_of_range("no"); },
                         std::chrono::seconds::max()),
                     std::out_of_range);
    });
    awaitSubscription();
    deliver("x");
    waiting.join();
    EXPECT_EQ(received.id, "before");
    expectNoSubscriptionIsLeft();
}

TEST_F(AWaitForALink, SurvivesItsEndpointAndAnotherWait) {
    Link other;
    Error results[2]{};
    BlockingThread first([&] { results[0] = waitFor("x"); });
    awaitSubscription();
    BlockingThread second([&] {
        results[1] = endpoint->waitFor(
            other, [](Link const& link) { return link.id == "y"; }, LONG);
    });
    awaitSubscription();
    ASSERT_TRUE(first.isBlocked());
    ASSERT_TRUE(second.isBlocked());
    endpoint.reset();
    deliver("x");
    first.join();
    deliver("y");
    second.join();
    EXPECT_THAT(results, ElementsAre(Error::SUCCESS, Error::SUCCESS));
    EXPECT_EQ(received.id, "x");
    EXPECT_EQ(other.id, "y");
}

} // namespace
