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
using Step = std::function<void(CallbackTest&)>;
using std::chrono::milliseconds;

struct Thrower {
    std::string name; ///< callback and thread
    std::string event;
    Step prepare;
    Step provoke; ///< more than once
};

void publish(CallbackTest& t, std::string const& below, std::string const& payload) {
    EXPECT_EQ(t.client->publish(t.topic(below), payload, 0, false), Error::SUCCESS);
}

void changeState(CallbackTest& t) {
    EXPECT_EQ(t.client->disconnect(TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(t.client->connect("", -1, TIMEOUT_S), Error::SUCCESS);
}

void request(CallbackTest& t) {
    EXPECT_EQ(t.objects.request(), Code::PENDING);
}

/// The topic is invalid, so the timer ends the request.
void requestOnInvalidTopic(CallbackTest& t) {
    EXPECT_EQ(t.objects.requester->request(&t.events, t.objects.id, zym::common::Uuid::NIL, nullptr,
                                           nullptr, nullptr, 0),
              Code::PENDING);
}

void makeBinder(CallbackTest& t) {
    t.objects.makeBinder();
}

/// The topic of its requests is invalid.
void makeBinderOnInvalidTopic(CallbackTest& t) {
    t.objects.binder = std::make_unique<mqtt::BinderMqttProxy>(*t.client, "far/+", "", t.objects.id,
                                                               t.topic("bound"), &t.events);
}

void bindSync(CallbackTest& t) {
    EXPECT_EQ(t.objects.binder->bindSync(device().id, TIMEOUT_S), Binder::Error::SUCCESS);
}

void unbindSync(CallbackTest& t) {
    EXPECT_EQ(t.objects.binder->unbindSync(TIMEOUT_S), Binder::Error::SUCCESS);
}

void bind(CallbackTest& t, std::uint32_t timeout) {
    EXPECT_EQ(t.objects.binder->bind(device().id, timeout), Binder::Error::SUCCESS);
}

void unbind(CallbackTest& t, std::uint32_t timeout) {
    EXPECT_EQ(t.objects.binder->unbind(timeout), Binder::Error::SUCCESS);
}

void clean(CallbackTest& t) {
    t.peer.publish(t.topic("old"), "old", 2, true);
    t.objects.cleaner->clean(t.topic("old"), milliseconds::zero());
    EXPECT_TRUE(t.objects.cleaner->waitAllTasks(std::chrono::seconds(TIMEOUT_S)));
}

std::vector<Thrower> ofMessages() {
    return {{"onMqttMessage worker", "message ROOT/x",
             [](CallbackTest& t) {
                 EXPECT_EQ(t.client->subscribe(t.topic("x"), &t.events, 1), Error::SUCCESS);
             },
             [](CallbackTest& t) { publish(t, "x", "hello"); }},
            {"onComStateChanged worker", "state 2",
             [](CallbackTest& t) { t.client->registerListener(&t.events); }, changeState},
            {"onComStateChanged caller", "state 4",
             [](CallbackTest& t) { t.client->registerListener(&t.events); }, changeState},
            {"onMqttData worker", "value new",
             [](CallbackTest& t) {
                 EXPECT_EQ(t.objects.makeEndpoint().subscribe(&t.events, 1), Error::SUCCESS);
             },
             [](CallbackTest& t) { publish(t, "value", R"({"@id": "new"})"); }},
            {"onRequest worker", "request",
             [](CallbackTest& t) { EXPECT_EQ(t.objects.serve(), Error::SUCCESS); },
             [](CallbackTest& t) { t.sendRequest(t.topic("service?\?")); }}};
}

std::vector<Thrower> ofRequests() {
    return {{"onReply worker", "reply 1", [](CallbackTest& t) { t.objects.makeRequester("echo"); },
             request},
            {"onReply caller", "reply 7",
             [](CallbackTest& t) { t.objects.makeRequester("nobody"); },
             [](CallbackTest& t) {
                 request(t);
                 EXPECT_EQ(t.objects.requester->cancel(), Code::SUCCESS);
             }},
            {"onReply timer", "reply 3", [](CallbackTest& t) { t.objects.makeRequester("+"); },
             requestOnInvalidTopic},
            {"onTimeSynchronized worker", "synchronized",
             [](CallbackTest& t) { t.objects.makeTimeProxy(); },
             [](CallbackTest& t) {
                 t.objects.timeProxy->stop();
                 EXPECT_TRUE(t.objects.timeProxy->startSync(device().id));
             }}};
}

std::vector<Thrower> ofBindings() {
    return {
        {"onBound worker", "bound 0", makeBinder,
         [](CallbackTest& t) {
             t.objects.binder->unbindSync(TIMEOUT_S);
             bind(t, TIMEOUT_S);
         }},
        {"onBound caller", "bound 0", makeBinder,
         [](CallbackTest& t) {
             t.objects.binder->unbindSync(TIMEOUT_S);
             bindSync(t);
         }},
        {"onBound timer", "bound 3", makeBinderOnInvalidTopic, [](CallbackTest& t) { bind(t, 0); }},
        {"onUnbound worker", "unbound 0", makeBinder,
         [](CallbackTest& t) {
             bindSync(t);
             unbind(t, TIMEOUT_S);
         }},
        {"onUnbound caller", "unbound 0", makeBinder,
         [](CallbackTest& t) {
             bindSync(t);
             unbindSync(t);
         }},
        {"onUnbound timer", "unbound 0", makeBinderOnInvalidTopic, [](CallbackTest& t) {
             bind(t, HOUR_S);
             unbind(t, 0);
         }}};
}

std::vector<Thrower> ofTimers() {
    auto const makeCleaner = [](CallbackTest& t) { t.objects.makeCleaner(); };
    return {{"onTopicCleaned timer", "cleaned ROOT/old", makeCleaner, clean},
            {"onAllTopicsCleaned timer", "all cleaned", makeCleaner, clean},
            {"Timer timer", "timer", [](CallbackTest& t) { t.objects.makeTimer(); },
             [](CallbackTest& t) { t.objects.restartTimer(milliseconds::zero(), true); }}};
}

std::vector<Thrower> throwers() {
    std::vector<Thrower> all;
    for (auto const& some : {ofMessages(), ofRequests(), ofBindings(), ofTimers()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

class Throwing : public testing::Test {
public:
    explicit Throwing(Thrower thrower) : thrower_(std::move(thrower)) {}

    void TestBody() override {
        CallbackTest t;
        auto event = thrower_.event;
        if (auto const root = event.find("ROOT"); root != std::string::npos) {
            event.replace(root, 4, t.root);
        }
        t.events.setHook([&, event](std::string const& recorded) {
            if (recorded == event) {
                EXPECT_EQ(threadNow(t), thrower_.name.substr(thrower_.name.find(' ') + 1));
            }
            throw std::runtime_error("from " + recorded);
        });
        thrower_.prepare(t);
        for (std::size_t time = 1; time <= 3; ++time) {
            thrower_.provoke(t);
            ASSERT_TRUE(t.events.waitFor(event, time));
        }
    }

private:
    std::string threadNow(CallbackTest const& t) const {
        if (t.client->onWorkerThread()) {
            return "worker";
        }
        return std::this_thread::get_id() == test_ ? "caller" : "timer";
    }

    Thrower const thrower_;
    std::thread::id const test_ = std::this_thread::get_id();
};

int registerTests() {
    int count = 0;
    for (auto const& thrower : throwers()) {
        testing::RegisterTest("AThrowingCallback", thrower.name.c_str(), nullptr, nullptr, __FILE__,
                              __LINE__, [=]() -> Throwing* { return new Throwing(thrower); });
        ++count;
    }
    return count;
}

int const registered = registerTests();

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
    for (auto const& thrower : throwers()) {
        tested.push_back(thrower.name);
    }
    EXPECT_THAT(inTheTable, testing::UnorderedElementsAreArray(tested));
    EXPECT_EQ(registered, static_cast<int>(tested.size()));
}

} // namespace
