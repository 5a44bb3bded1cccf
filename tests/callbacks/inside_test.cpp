// Calls inside callbacks, as the guide's first table has them. Inside a message, every operation of
// the first column is called; inside the other callbacks, a few: those whose locks differ.

#include "guide.hpp"
#include "operations.hpp"

#include <gmock/gmock.h>

#include <array>
#include <map>
#include <set>

namespace {

using Error = mqtt::MqttClient::Error;
using Names = std::vector<std::string>;

constexpr char const* HEADING = "Which operation may be called from which callback";

/// The table's columns, in their order.
enum Column : std::size_t { WORKER, STATE, CLEANER, TIMER, ANOTHER, OWN, COLUMNS };

/// Makes an object call its listener.
using Provoke = std::function<void(CallbackTest&, Objects&, Operation const&)>;

struct Callback {
    std::string suite;
    Column column;
    std::string event; ///< begins with this
    Provoke provoke;
    Names operations; ///< to call inside it; none: all
};

void publish(mqtt::MqttClient& client, std::string const& topic, std::string const& payload) {
    EXPECT_EQ(client.publish(topic, payload, 0, false), Error::SUCCESS);
}

void subscribeAndPublish(mqtt::MqttClient& client, std::string const& topic, Objects& objects) {
    EXPECT_EQ(client.subscribe(topic, &objects.events, 0), Error::SUCCESS);
    publish(client, topic, "now");
}

void provokeMessage(CallbackTest& t, Objects& objects, Operation const& /*operation*/) {
    subscribeAndPublish(*t.client, t.topic("go"), objects);
}

void provokeOtherMessage(CallbackTest& t, Objects& objects, Operation const& /*operation*/) {
    t.another = support::testClient(device().broker);
    subscribeAndPublish(*t.another, t.topic("go"), objects);
}

void provokeValue(CallbackTest& t, Objects& objects, Operation const& /*operation*/) {
    EXPECT_EQ(objects.makeEndpoint().subscribe(&objects.events, 1), Error::SUCCESS);
    publish(*t.client, objects.root + "/value", R"({"@id": "go"})");
}

void provokeReply(CallbackTest& /*test*/, Objects& objects, Operation const& /*operation*/) {
    objects.makeRequester("echo");
    EXPECT_EQ(objects.request(), mqtt::RequestReply::ErrorCode::PENDING);
}

void provokeRequest(CallbackTest& t, Objects& objects, Operation const& /*operation*/) {
    EXPECT_EQ(objects.serve(), Error::SUCCESS);
    publish(*t.client, objects.root + "/service?\?/" + objects.id.base64URL(),
            R"({"$reqId": 1, "number": 7})");
}

void provokeTime(CallbackTest& /*test*/, Objects& objects, Operation const& /*operation*/) {
    EXPECT_TRUE(objects.makeTimeProxy().startSync(device().id));
}

void provokeBinding(CallbackTest& t, Objects& objects, Operation const& operation) {
    using Result = zym::common::Binder::Error;
    auto& binder = objects.makeBinder();
    if (t.sameObject && operation.ownEvent == "unbound 0") {
        EXPECT_EQ(binder.bindSync(device().id, TIMEOUT_S), Result::SUCCESS);
        EXPECT_EQ(binder.unbind(TIMEOUT_S), Result::SUCCESS);
    } else {
        EXPECT_EQ(binder.bind(device().id, TIMEOUT_S), Result::SUCCESS);
    }
}

void provokeState(CallbackTest& t, Objects& objects, Operation const& operation) {
    auto& client = *t.client;
    if (operation.whileDisconnected && t.verdict != Verdict::REFUSED) {
        EXPECT_EQ(client.connect("", -1, TIMEOUT_S), Error::SUCCESS);
        client.registerListener(&objects.events);
        EXPECT_EQ(client.disconnect(TIMEOUT_S), Error::SUCCESS);
    } else {
        EXPECT_EQ(client.disconnect(TIMEOUT_S), Error::SUCCESS);
        client.registerListener(&objects.events);
        // Does not wait for a state that the operation may end at once.
        auto const result = client.connect("", -1, 0);
        EXPECT_TRUE(result == Error::SUCCESS || result == Error::TIMEOUT) << result;
    }
}

void provokeCleaner(CallbackTest& t, Objects& objects, Operation const& /*operation*/) {
    auto const topic = objects.root + "/go";
    t.peer.publish(topic, "now", 2, true);
    objects.makeCleaner().clean(topic, std::chrono::milliseconds::zero());
}

void provokeTimer(CallbackTest& t, Objects& objects, Operation const& /*operation*/) {
    objects.makeTimer();
    objects.restartTimer(std::chrono::milliseconds(t.sameObject ? 1 : 0), !t.sameObject);
}

/// The callback in which an object of a class is called by itself.
Callback const& ownCallback(std::string const& className) {
    static std::map<std::string, Callback> const all{
        {"MqttClient", {"", OWN, "message", provokeMessage, {}}},
        {"MqttData", {"", OWN, "value", provokeValue, {}}},
        {"RequestReplyClient", {"", OWN, "reply", provokeReply, {}}},
        {"RequestReplyServer", {"", OWN, "request", provokeRequest, {}}},
        {"SynchronizedTimeBaseMqttProxy", {"", OWN, "synchronized", provokeTime, {}}},
        {"BinderMqttProxy", {"", OWN, "bound 0", provokeBinding, {}}},
        {"TopicCleaner", {"", OWN, "cleaned", provokeCleaner, {}}},
        {"Timer", {"", OWN, "timer", provokeTimer, {}}},
    };
    return all.at(className);
}

std::vector<Callback> callbacks() {
    Names const waits{"MqttClient/publishWait", "MqttClient/connect", "MqttClient/destroy",
                      "RequestReplyClient/requestWait", "BinderMqttProxy/bindSync"};
    Names const inStateListener{"MqttClient/publish",
                                "MqttClient/clear",
                                "MqttClient/subscribe",
                                "MqttClient/unsubscribe",
                                "MqttClient/release",
                                "MqttClient/registerListener",
                                "MqttClient/unregisterListener",
                                "MqttClient/communicationState",
                                "MqttClient/giveUp",
                                "MqttClient/pause",
                                "MqttClient/resume",
                                "MqttClient/connect",
                                "MqttClient/disconnect(0)",
                                "MqttClient/disconnect",
                                "MqttClient/setWill",
                                "MqttClient/clearWill",
                                "MqttData/publish",
                                "MqttData/subscribe",
                                "MqttData/setCurrentValueAsWill",
                                "RequestReplyServer/subscribe",
                                "TopicCleaner/clean",
                                "Timer/restart"};
    Names const onSameObject{"MqttClient/unsubscribe",
                             "MqttClient/unsubscribeWait",
                             "MqttClient/release",
                             "MqttData/publish",
                             "MqttData/unsubscribe",
                             "MqttData/unsubscribeWait",
                             "MqttData/destroy",
                             "RequestReplyClient/request",
                             "RequestReplyClient/waitEndOfRequest",
                             "RequestReplyClient/release",
                             "RequestReplyClient/destroy",
                             "RequestReplyServer/unsubscribeWait",
                             "RequestReplyServer/destroy",
                             "SynchronizedTimeBaseMqttProxy/stop",
                             "SynchronizedTimeBaseMqttProxy/destroy",
                             "BinderMqttProxy/bind",
                             "BinderMqttProxy/unbind",
                             "BinderMqttProxy/destroy",
                             "TopicCleaner/clean",
                             "TopicCleaner/waitAllTasks",
                             "TopicCleaner/destroy",
                             "Timer/restart",
                             "Timer/terminate",
                             "Timer/destroy"};
    return {
        {"InsideAMessage", WORKER, "message", provokeMessage, {}},
        {"InsideAValue", WORKER, "value", provokeValue, {"MqttData/publish", "MqttData/destroy"}},
        {"InsideAReply",
         WORKER,
         "reply",
         provokeReply,
         {"RequestReplyClient/request", "RequestReplyClient/destroy"}},
        {"InsideARequest",
         WORKER,
         "request",
         provokeRequest,
         {"RequestReplyServer/unsubscribeWait", "RequestReplyClient/request"}},
        {"InsideATimeCall",
         WORKER,
         "synchronized",
         provokeTime,
         {"SynchronizedTimeBaseMqttProxy/startSync", "SynchronizedTimeBaseMqttProxy/destroy"}},
        {"InsideABindingCall",
         WORKER,
         "bound",
         provokeBinding,
         {"BinderMqttProxy/unbind", "BinderMqttProxy/destroy"}},
        {"InsideAStateCall", STATE, "state 2", provokeState, inStateListener},
        {"InsideACleanerCall", CLEANER, "cleaned", provokeCleaner, waits},
        {"InsideATimerCall", TIMER, "timer", provokeTimer, waits},
        {"InsideAnotherClientsCall", ANOTHER, "message", provokeOtherMessage, waits},
        {"InsideItsOwnCall", OWN, "", nullptr, onSameObject},
    };
}

std::string classOf(Operation const& operation) {
    return operation.name.substr(0, operation.name.find('/'));
}

class Inside : public testing::Test {
public:
    Inside(Callback callback, Operation operation, Verdict verdict)
        : callback_(callback.column == OWN ? ownCallback(classOf(operation)) : std::move(callback)),
          operation_(std::move(operation)),
          verdict_(verdict) {}

    void TestBody() override {
        CallbackTest test;
        test.sameObject = callback_.column == OWN;
        test.onWorker = isOnWorker();
        test.verdict = verdict_;
        if (operation_.whileDisconnected && verdict_ != Verdict::REFUSED) {
            EXPECT_EQ(test.client->disconnect(TIMEOUT_S), Error::SUCCESS);
        }
        operation_.prepare(test);
        auto& objects = test.sameObject ? test.objects : test.callers;
        support::Watched<bool> called(false);
        std::atomic<bool> begun{false};
        objects.events.setHook([&, begins = expectedEvent()](std::string const& event) {
            // More events may come while the operation is called.
            if (event.rfind(begins, 0) == 0 && !begun.exchange(true)) {
                call(test);
                set(called);
            }
        });
        callback_.provoke(test, objects, operation_);
        ASSERT_TRUE(called.waitFor(support::isSet));
        if (!HasFailure()) {
            operation_.check(test);
        }
        // After a wait in vain the client goes on.
        if (verdict_ == Verdict::IN_VAIN && operation_.name != "MqttClient/disconnect") {
            test.flush();
        }
    }

private:
    bool isOnWorker() const {
        auto const name = classOf(operation_);
        bool const ownThread = name == "TopicCleaner" || name == "Timer";
        return callback_.column == WORKER || callback_.column == STATE
               || (callback_.column == OWN && !ownThread);
    }

    std::string expectedEvent() const {
        if (callback_.column == OWN && !operation_.ownEvent.empty()) {
            return operation_.ownEvent;
        }
        bool const disconnection = callback_.column == STATE && operation_.whileDisconnected
                                   && verdict_ != Verdict::REFUSED;
        return disconnection ? "state 1" : callback_.event;
    }

    void call(CallbackTest& test) const {
        test.events.clear();
        try {
            operation_.call(test);
        } catch (std::exception const& e) {
            ADD_FAILURE() << e.what();
        }
    }

    Callback const callback_;
    Operation const operation_;
    Verdict const verdict_;
};

Operations const& operations() {
    static auto const all = [] {
        Operations result;
        for (auto const& some :
             {clientOperations(), dataOperations(), requestReplyOperations(), timeBaseOperations(),
              binderOperations(), discoveryOperations(), cleanerOperations(), timerOperations()}) {
            result.insert(result.end(), some.begin(), some.end());
        }
        return result;
    }();
    return all;
}

/// What the table says; "" when it has no such operation.
std::string cell(std::string const& operation, Column column) {
    static auto const rows = tableOfTheGuide(HEADING);
    for (auto const& row : rows) {
        if (std::count(row.names.begin(), row.names.end(), operation) > 0) {
            return column < row.cells.size() ? row.cells[column] : "";
        }
    }
    return "";
}

std::map<std::string, Verdict> const VERDICTS{
    {"yes", Verdict::WORKS}, {"refused", Verdict::REFUSED}, {"in vain", Verdict::IN_VAIN}};

/// The operations to call inside a callback that the table allows there, with what it says.
std::map<std::string, Verdict> calls(Callback const& callback) {
    std::map<std::string, Verdict> result;
    for (auto const& operation : operations()) {
        auto const& chosen = callback.operations;
        auto const verdict = VERDICTS.find(cell(operation.name, callback.column));
        bool const isChosen =
            chosen.empty() || std::count(chosen.begin(), chosen.end(), operation.name) > 0;
        if (isChosen && verdict != VERDICTS.end()) {
            result.emplace(operation.name, verdict->second);
        }
    }
    return result;
}

int registerTests() {
    int count = 0;
    for (auto const& callback : callbacks()) {
        auto const all = calls(callback);
        for (auto const& operation : operations()) {
            if (auto const found = all.find(operation.name); found != all.end()) {
                auto const verdict = found->second;
                testing::RegisterTest(callback.suite.c_str(), operation.name.c_str(), nullptr,
                                      nullptr, __FILE__, __LINE__, [=]() -> Inside* {
                                          return new Inside(callback, operation, verdict);
                                      });
                ++count;
            }
        }
    }
    return count;
}

int const registered = registerTests();

TEST(TheFirstTableOfTheGuide, HasARowForEveryOperationAndUnderstandableCells) {
    Names inTheTable;
    for (auto const& row : tableOfTheGuide(HEADING)) {
        inTheTable.insert(inTheTable.end(), row.names.begin(), row.names.end());
        EXPECT_EQ(row.cells.size(), COLUMNS) << row.names[0];
        for (auto const& cell : row.cells) {
            EXPECT_THAT(cell, testing::AnyOf("yes", "refused", "in vain", "no", "-"))
                << row.names[0];
        }
    }
    Names ours;
    for (auto const& operation : operations()) {
        ours.push_back(operation.name);
    }
    EXPECT_THAT(inTheTable, testing::UnorderedElementsAreArray(ours));
}

TEST(TheFirstTableOfTheGuide, AllowsWhatTheTestsCall) {
    EXPECT_GT(registered, 100);
    for (auto const& callback : callbacks()) {
        for (auto const& name : callback.operations) {
            EXPECT_EQ(calls(callback).count(name), 1U) << callback.suite << " " << name;
        }
    }
}

} // namespace
