// Exceptions out of every callback, on every thread that calls it by the guide's table of
// callbacks: they are dropped, and the object calls it again.

#include "callback_test.hpp"
#include "guide.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

using Binder = zym::common::Binder;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using Test = CallbackTest;
using Step = std::function<void(Test&)>;
using std::chrono::milliseconds;

struct Callback {
    std::string name; ///< callback and thread
    std::string event;
    Step prepare;
    Step provoke; ///< more than once
};

void publish(Test& t, std::string const& below, std::string const& payload) {
    EXPECT_EQ(t.client->publish(t.topic(below), payload, 0, false), Error::SUCCESS);
}

void changeState(Test& t) {
    EXPECT_EQ(t.client->disconnect(TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(t.client->connect("", -1, TIMEOUT_S), Error::SUCCESS);
}

void request(Test& t) {
    EXPECT_EQ(t.objects.request(), Code::PENDING);
}

/// The topic is invalid, so the timer ends the request.
void requestOnInvalidTopic(Test& t) {
    EXPECT_EQ(t.objects.requester->request(&t.events, t.objects.id, zym::common::Uuid::NIL, nullptr,
                                           nullptr, nullptr, 0),
              Code::PENDING);
}

void makeBinder(Test& t) {
    t.objects.makeBinder();
}

/// The topic of its requests is invalid.
void makeBinderOnInvalidTopic(Test& t) {
    t.objects.binder = std::make_unique<mqtt::BinderMqttProxy>(*t.client, "far/+", "", t.objects.id,
                                                               t.topic("bound"), &t.events);
}

void bindSync(Test& t) {
    EXPECT_EQ(t.objects.binder->bindSync(device().id, TIMEOUT_S), Binder::Error::SUCCESS);
}

void unbindSync(Test& t) {
    EXPECT_EQ(t.objects.binder->unbindSync(TIMEOUT_S), Binder::Error::SUCCESS);
}

void bind(Test& t, std::uint32_t timeout) {
    EXPECT_EQ(t.objects.binder->bind(device().id, timeout), Binder::Error::SUCCESS);
}

void unbind(Test& t, std::uint32_t timeout) {
    EXPECT_EQ(t.objects.binder->unbind(timeout), Binder::Error::SUCCESS);
}

void clean(Test& t) {
    t.peer.publish(t.topic("old"), "old", 2, true);
    t.objects.cleaner->clean(t.topic("old"), milliseconds::zero());
    EXPECT_TRUE(t.objects.cleaner->waitAllTasks(std::chrono::seconds(TIMEOUT_S)));
}

std::vector<Callback> callbacks() {
    auto const makeCleaner = [](Test& t) { t.objects.makeCleaner(); };
    auto const listen = [](Test& t) { t.client->registerListener(&t.events); };
    return {
        {"onMqttMessage worker", "message ROOT/x",
         [](Test& t) {
             EXPECT_EQ(t.client->subscribe(t.topic("x"), &t.events, 1), Error::SUCCESS);
         },
         [](Test& t) { publish(t, "x", "hello"); }},
        {"onComStateChanged worker", "state 2", listen, changeState},
        {"onComStateChanged caller", "state 4", listen, changeState},
        {"onMqttData worker", "value new",
         [](Test& t) {
             EXPECT_EQ(t.objects.makeEndpoint().subscribe(&t.events, 1), Error::SUCCESS);
         },
         [](Test& t) { publish(t, "value", R"({"@id": "new"})"); }},
        {"onRequest worker", "request",
         [](Test& t) { EXPECT_EQ(t.objects.serve(), Error::SUCCESS); },
         [](Test& t) { t.sendRequest(t.topic("service?\?")); }},
        {"onReply worker", "reply 1", [](Test& t) { t.objects.makeRequester("echo"); }, request},
        {"onReply caller", "reply 7", [](Test& t) { t.objects.makeRequester("nobody"); },
         [](Test& t) {
             request(t);
             EXPECT_EQ(t.objects.requester->cancel(), Code::SUCCESS);
         }},
        {"onReply timer", "reply 3", [](Test& t) { t.objects.makeRequester("+"); },
         requestOnInvalidTopic},
        {"onTimeSynchronized worker", "synchronized", [](Test& t) { t.objects.makeTimeProxy(); },
         [](Test& t) {
             t.objects.timeProxy->stop();
             EXPECT_TRUE(t.objects.timeProxy->startSync(device().id));
         }},
        {"onBound worker", "bound 0", makeBinder,
         [](Test& t) {
             t.objects.binder->unbindSync(TIMEOUT_S);
             bind(t, TIMEOUT_S);
         }},
        {"onBound caller", "bound 0", makeBinder,
         [](Test& t) {
             t.objects.binder->unbindSync(TIMEOUT_S);
             bindSync(t);
         }},
        {"onBound timer", "bound 3", makeBinderOnInvalidTopic, [](Test& t) { bind(t, 0); }},
        {"onUnbound worker", "unbound 0", makeBinder,
         [](Test& t) {
             bindSync(t);
             unbind(t, TIMEOUT_S);
         }},
        {"onUnbound caller", "unbound 0", makeBinder,
         [](Test& t) {
             bindSync(t);
             unbindSync(t);
         }},
        {"onUnbound timer", "unbound 0", makeBinderOnInvalidTopic,
         [](Test& t) {
             bind(t, HOUR_S);
             unbind(t, 0);
         }},
        {"onTopicCleaned timer", "cleaned ROOT/old", makeCleaner, clean},
        {"onAllTopicsCleaned timer", "all cleaned", makeCleaner, clean},
        {"Timer timer", "timer", [](Test& t) { t.objects.makeTimer(); },
         [](Test& t) { t.objects.restartTimer(milliseconds::zero(), true); }}};
}

/// Which thread this is: "worker", "caller" or "timer".
std::string threadNow(Test const& t, std::thread::id caller) {
    return t.client->onWorkerThread()             ? "worker"
           : std::this_thread::get_id() == caller ? "caller"
                                                  : "timer";
}

TEST(AThrowingCallback, IsIgnoredAndCalledAgainOnEveryThread) {
    auto const caller = std::this_thread::get_id();
    for (Callback const& callback : callbacks()) {
        SCOPED_TRACE(callback.name);
        CallbackTest t;
        auto event = callback.event;
        if (auto const root = event.find("ROOT"); root != std::string::npos) {
            event.replace(root, 4, t.root);
        }
        t.events.setHook([&](std::string const& recorded) {
            if (recorded == event) {
                EXPECT_EQ(threadNow(t, caller), callback.name.substr(callback.name.find(' ') + 1));
            }
            throw std::runtime_error("from " + recorded);
        });
        callback.prepare(t);
        for (std::size_t time = 1; time <= 3; ++time) {
            callback.provoke(t);
            ASSERT_TRUE(t.events.waitFor(event, time));
        }
    }
}

std::string lastPart(std::string const& name) {
    return name.substr(name.find_last_of(":/") + 1);
}

TEST(TheTableOfCallbacks, HasATestForEveryThreadAndNoOther) {
    std::vector<std::string> inTheTable;
    for (auto const& row : tableOfTheGuide("The callbacks")) {
        ASSERT_EQ(row.cells.size(), 3U) << row.names[0];
        EXPECT_THAT(row.cells[2], testing::StartsWith("dropped")) << row.names[0];
        for (auto const& [words, thread] :
             {std::pair("the worker", "worker"), std::pair("the thread", "caller"),
              std::pair("timer", "timer")}) {
            for (auto const& name : row.names) {
                if (row.cells[0].find(words) != std::string::npos) {
                    inTheTable.push_back(lastPart(name) + " " + thread);
                }
            }
        }
    }
    std::vector<std::string> tested;
    for (auto const& callback : callbacks()) {
        tested.push_back(callback.name);
    }
    EXPECT_THAT(inTheTable, testing::UnorderedElementsAreArray(tested));
}

} // namespace
