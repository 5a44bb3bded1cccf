// A test for every callback, and every thread that it is called on, in the guide's table of
// callbacks: what it throws is dropped, and the object calls it again.

#include "guide.hpp"
#include "stage.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

using Binder = zym::common::Binder;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using Step = std::function<void(Stage&)>;
using std::chrono::milliseconds;

struct Thrower {
    std::string name; ///< callback and thread
    std::string event;
    Step prepare;
    Step provoke; ///< more than once
};

void publish(Stage& stage, std::string const& below, std::string const& payload) {
    EXPECT_EQ(stage.client->publish(stage.topic(below), payload, 0, false), Error::SUCCESS);
}

void changeState(Stage& stage) {
    EXPECT_EQ(stage.client->disconnect(PATIENCE), Error::SUCCESS);
    EXPECT_EQ(stage.client->connect("", -1, PATIENCE), Error::SUCCESS);
}

void request(Stage& stage) {
    EXPECT_EQ(stage.things.request(), Code::PENDING);
}

/// To a topic that cannot be: the timer ends it.
void requestInVain(Stage& stage) {
    EXPECT_EQ(stage.things.requester->request(&stage.ear, stage.things.id, zym::common::Uuid::NIL,
                                              nullptr, nullptr, nullptr, 0),
              Code::PENDING);
}

void makeBinder(Stage& stage) {
    stage.things.makeBinder();
}

/// Its requests go to a topic that cannot be.
void makeBinderInVain(Stage& stage) {
    stage.things.binder = std::make_unique<mqtt::BinderMqttProxy>(
        *stage.client, "far/+", "", stage.things.id, stage.topic("bound"), &stage.ear);
}

void bindSync(Stage& stage) {
    EXPECT_EQ(stage.things.binder->bindSync(world().device, PATIENCE), Binder::Error::SUCCESS);
}

void unbindSync(Stage& stage) {
    EXPECT_EQ(stage.things.binder->unbindSync(PATIENCE), Binder::Error::SUCCESS);
}

void bind(Stage& stage, std::uint32_t timeout) {
    EXPECT_EQ(stage.things.binder->bind(world().device, timeout), Binder::Error::SUCCESS);
}

void unbind(Stage& stage, std::uint32_t timeout) {
    EXPECT_EQ(stage.things.binder->unbind(timeout), Binder::Error::SUCCESS);
}

void clean(Stage& stage) {
    stage.peer.publish(stage.topic("dirt"), "old", 2, true);
    stage.things.cleaner->clean(stage.topic("dirt"), milliseconds::zero());
    EXPECT_TRUE(stage.things.cleaner->waitAllTasks(std::chrono::seconds(PATIENCE)));
}

std::vector<Thrower> ofMessages() {
    return {
        {"onMqttMessage worker", "message ROOT/x",
         [](Stage& s) { EXPECT_EQ(s.client->subscribe(s.topic("x"), &s.ear, 1), Error::SUCCESS); },
         [](Stage& s) { publish(s, "x", "hello"); }},
        {"onComStateChanged worker", "state 2",
         [](Stage& s) { s.client->registerListener(&s.ear); }, changeState},
        {"onComStateChanged caller", "state 4",
         [](Stage& s) { s.client->registerListener(&s.ear); }, changeState},
        {"onMqttData worker", "value new",
         [](Stage& s) { EXPECT_EQ(s.things.makeEndpoint().subscribe(&s.ear, 1), Error::SUCCESS); },
         [](Stage& s) { publish(s, "value", R"({"@id": "new"})"); }},
        {"onRequest worker", "request",
         [](Stage& s) { EXPECT_EQ(s.things.serve(), Error::SUCCESS); },
         [](Stage& s) { s.ask(s.topic("service?\?")); }}};
}

std::vector<Thrower> ofRequests() {
    return {
        {"onReply worker", "reply 1", [](Stage& s) { s.things.makeRequester("echo"); }, request},
        {"onReply caller", "reply 7", [](Stage& s) { s.things.makeRequester("nobody"); },
         [](Stage& s) {
             request(s);
             EXPECT_EQ(s.things.requester->cancel(), Code::SUCCESS);
         }},
        {"onReply timer", "reply 3", [](Stage& s) { s.things.makeRequester("+"); }, requestInVain},
        {"onTimeSynchronized worker", "synchronized", [](Stage& s) { s.things.makeTimeProxy(); },
         [](Stage& s) {
             s.things.timeProxy->stop();
             EXPECT_TRUE(s.things.timeProxy->startSync(world().device));
         }}};
}

std::vector<Thrower> ofBindings() {
    return {{"onBound worker", "bound 0", makeBinder,
             [](Stage& s) {
                 s.things.binder->unbindSync(PATIENCE);
                 bind(s, PATIENCE);
             }},
            {"onBound caller", "bound 0", makeBinder,
             [](Stage& s) {
                 s.things.binder->unbindSync(PATIENCE);
                 bindSync(s);
             }},
            {"onBound timer", "bound 3", makeBinderInVain, [](Stage& s) { bind(s, 0); }},
            {"onUnbound worker", "unbound 0", makeBinder,
             [](Stage& s) {
                 bindSync(s);
                 unbind(s, PATIENCE);
             }},
            {"onUnbound caller", "unbound 0", makeBinder,
             [](Stage& s) {
                 bindSync(s);
                 unbindSync(s);
             }},
            {"onUnbound timer", "unbound 0", makeBinderInVain, [](Stage& s) {
                 bind(s, AN_HOUR);
                 unbind(s, 0);
             }}};
}

std::vector<Thrower> ofTimers() {
    auto const makeCleaner = [](Stage& s) { s.things.makeCleaner(); };
    return {{"onTopicCleaned timer", "cleaned ROOT/dirt", makeCleaner, clean},
            {"onAllTopicsCleaned timer", "all cleaned", makeCleaner, clean},
            {"Timer timer", "timer", [](Stage& s) { s.things.makeTimer(); },
             [](Stage& s) { s.things.restartTimer(milliseconds::zero(), true); }}};
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
        Stage stage;
        auto event = thrower_.event;
        if (auto const root = event.find("ROOT"); root != std::string::npos) {
            event.replace(root, 4, stage.root);
        }
        stage.ear.setHook([&, event](std::string const& heard) {
            if (heard == event) {
                EXPECT_EQ(threadNow(stage), thrower_.name.substr(thrower_.name.find(' ') + 1));
            }
            throw std::runtime_error("from " + heard);
        });
        thrower_.prepare(stage);
        for (std::size_t time = 1; time <= 3; ++time) {
            thrower_.provoke(stage);
            ASSERT_TRUE(stage.ear.waitFor(event, time));
        }
    }

private:
    std::string threadNow(Stage const& stage) const {
        if (stage.client->onWorkerThread()) {
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
