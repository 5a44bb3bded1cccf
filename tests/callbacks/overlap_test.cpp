// Calls of one object that overlap, as the guide's second table allows them. The sanitizers find
// data races; here the object has to work afterwards.

#include "guide.hpp"
#include "operations.hpp"

#include "support/timeout_factor.hpp"

#include <gmock/gmock.h>

#include <thread>

namespace {

using Lock = mqtt::MqttDataBase::Lock;

constexpr int ROUNDS = 40 / support::TIMEOUT_FACTOR;

/// How the operations of a class are called all at once.
struct OverlapCase {
    std::string className;
    std::string reset; ///< the operation that leads back to where `works` can succeed
    std::string works; ///< the operation that shows that the object works; "": none
    std::function<void(CallbackTest&)> others{}; ///< other calls, or messages for the object
};

std::ostream& operator<<(std::ostream& out, OverlapCase const& one) {
    return out << one.className;
}

void publishRequest(CallbackTest& t, std::string const& to) {
    t.peer.publish(t.topic(to + "?\?/" + t.objects.id.base64URL()),
                   R"({"$reqId": 1, "number": 7, "client": 1.5})", 0);
}

std::vector<OverlapCase> overlapCases() {
    return {
        {"MqttClient", "release", "subscribe",
         [](CallbackTest& t) { t.peer.publish(t.topic("x"), "hello", 0); }},
        {"MqttData", "release", "subscribe",
         [](CallbackTest& t) {
             t.peer.publish(t.topic("value"), R"({"@id": "other"})", 0);
             Lock const lock(t.objects.endpoint->mutex());
             t.objects.endpoint->setTopicBase(t.topic("value"));
         }},
        {"RequestReplyClient", "cancel", "requestWait"},
        {"RequestReplyServer", "release", "subscribe",
         [](CallbackTest& t) {
             publishRequest(t, "service");
             EXPECT_EQ(t.objects.server->requestTopic().text(), t.topic("service?\?"));
         }},
        {"SynchronizedTimeBaseMqttProxy", "stop", "synchronize",
         [](CallbackTest& t) { t.objects.timeProxy->registerListener(&t.events); }},
        {"SynchronizedTimeBaseMqttAdaptor", "", "",
         [](CallbackTest& t) {
             publishRequest(t, t.objects.id.base64URL() + "/timeSync");
             t.objects.timeBase->timeBase();
         }},
        {"BinderMqttProxy", "unbindSync", "bindSync",
         [](CallbackTest& t) { t.objects.binder->isTimeBaseSynchronized(); }},
        {"ServiceDiscovererMqtt", "links", "discoverSync",
         [](CallbackTest& t) { t.objects.discoverer->discoverSync(0, false); }},
        {"TopicCleaner", "clean", "waitAllTasks"},
        {"Timer", "stop", "restart"},
    };
}

class AllAtOnce : public testing::TestWithParam<OverlapCase> {
protected:
    static Operation const* find(std::string const& name) {
        return findOperation(GetParam().className + "/" + name);
    }

    /// A thread that makes the call repeatedly, but at most one call that waits in vain.
    void repeat(Operation const& operation) {
        int const rounds = operation.kind == Kind::SUCCEEDS_IN_VAIN ? 1 : ROUNDS;
        start([this, &operation, rounds] {
            for (int i = 0; i < rounds && operation.call(t) != Outcome::TIMED_OUT; ++i) {
            }
        });
    }
    void start(std::function<void()> const& calls) {
        threads_.emplace_back([this, calls] {
            begin_.waitFor(mqtt::test::isSet);
            calls();
        });
    }
    void runAll() {
        set(begin_);
        for (auto& thread : threads_) {
            thread.join();
        }
        threads_.clear();
        begin_.change([](bool& begin) { begin = false; });
    }

    /// Each operation on two threads, and the other calls on one.
    void callAllOperations() {
        t.timeoutS = 1; // other calls may end a wait only by its time-out
        for (auto const& operation : allOperations()) {
            if (operation.className() == GetParam().className && !operation.endsTheObject()) {
                repeat(operation);
                repeat(operation);
            }
        }
        start([this] {
            for (int i = 0; i < 5 * ROUNDS && GetParam().others; ++i) {
                GetParam().others(t);
            }
        });
        runAll();
        // Acknowledged when the broker has handled all before it.
        t.peer.publish(t.topic("end"), "");
        t.timeoutS = TIMEOUT_S;
    }

    CallbackTest t;

private:
    mqtt::test::Watched<bool> begin_;
    std::vector<std::thread> threads_;
};

TEST_P(AllAtOnce, EveryOperationOverlapsWithEveryOther) {
    auto const* const works = find(GetParam().works);
    if (works) {
        works->prepare(t);
        EXPECT_EQ(works->call(t), Outcome::SUCCESS);
    }
    callAllOperations();
    t.client->resume();
    // Until the worker has carried out the last `giveUp`, a client refuses to connect.
    ASSERT_TRUE(mqtt::test::eventually([&] {
        t.client->connect("", -1, TIMEOUT_S);
        return t.client->communicationState() == conv::ComState::CONNECTED;
    }));
    t.flush();
    t.events.clear();
    if (works) {
        EXPECT_TRUE(mqtt::test::eventually([&] {
            find(GetParam().reset)->call(t);
            return works->call(t) == Outcome::SUCCESS;
        }));
        EXPECT_TRUE(works->check(t));
    }
    // Several threads end the object while another one uses it.
    if (auto const* const terminate = find("terminate")) {
        terminate->prepare(t);
        start([&] { terminate->call(t); });
        start([&] { terminate->call(t); });
        if (works) {
            repeat(*find(GetParam().reset));
        }
        runAll();
        EXPECT_TRUE(terminate->check(t));
    }
}

INSTANTIATE_TEST_SUITE_P(Class, AllAtOnce, testing::ValuesIn(overlapCases()),
                         [](auto const& one) { return one.param.className; });

// The other columns are proved by the tests of each class, and by the scenarios `TheEndOf...` of
// the interleavings.
TEST(TheSecondTableOfTheGuide, AllowsEveryOperationWithEveryOtherWhereThatIsTested) {
    std::vector<std::string> allowed;
    for (auto const& row : tableOfTheGuide("What may overlap")) {
        EXPECT_THAT(row.cells, testing::SizeIs(3)) << row.names[0];
        EXPECT_THAT(row.cells, testing::Each(testing::AnyOf("yes", "no", "-"))) << row.names[0];
        if (row.cells.at(0) == "yes") {
            allowed.push_back(row.names[0]);
        }
    }
    std::vector<std::string> tested;
    for (auto const& one : overlapCases()) {
        tested.push_back(one.className);
    }
    EXPECT_THAT(tested, testing::UnorderedElementsAreArray(allowed));
}

} // namespace
