// A test for every cell of the guide's first table that says that a call works or is refused: the
// table is the list of the tests, named by callback and operation.

#include "guide.hpp"
#include "operations.hpp"

#include <gmock/gmock.h>

#include <array>
#include <map>
#include <set>

namespace {

using Error = mqtt::MqttClient::Error;

/// The table's columns, in their order.
enum Column : std::size_t { WORKER, STATE, CLEANER, TIMER, ANOTHER, OWN, COLUMNS };

/// Makes an object call its listener.
using Provoke = std::function<void(Stage&, Things&, Operation const&)>;

struct Callback {
    std::string suite;
    Column column;
    std::string event; ///< begins with this
    Provoke provoke;
};

void provokeMessage(Stage& stage, Things& things, Operation const& /*operation*/) {
    EXPECT_EQ(stage.client->subscribe(stage.topic("go"), &things.ear, 0), Error::SUCCESS);
    EXPECT_EQ(stage.client->publish(stage.topic("go"), "now", 0, false), Error::SUCCESS);
}

void provokeValue(Stage& stage, Things& things, Operation const& /*operation*/) {
    EXPECT_EQ(things.makeEndpoint().subscribe(&things.ear, 1), Error::SUCCESS);
    EXPECT_EQ(stage.client->publish(things.root + "/value", R"({"@id": "go"})", 0, false),
              Error::SUCCESS);
}

void provokeReply(Stage& /*stage*/, Things& things, Operation const& /*operation*/) {
    things.makeRequester("echo");
    EXPECT_EQ(things.request(), mqtt::RequestReply::ErrorCode::PENDING);
}

void provokeRequest(Stage& stage, Things& things, Operation const& /*operation*/) {
    EXPECT_EQ(things.serve(), Error::SUCCESS);
    auto const topic = things.root + "/service?\?/" + things.id.base64URL();
    EXPECT_EQ(stage.client->publish(topic, R"({"$reqId": 1, "number": 7})", 0, false),
              Error::SUCCESS);
}

void provokeTime(Stage& /*stage*/, Things& things, Operation const& /*operation*/) {
    EXPECT_TRUE(things.makeTimeProxy().startSync(world().device));
}

void provokeBinding(Stage& /*stage*/, Things& things, Operation const& operation) {
    using Result = zym::common::Binder::Error;
    auto& binder = things.makeBinder();
    if (&things == &things.stage.things && operation.ownEvent == "unbound 0") {
        EXPECT_EQ(binder.bindSync(world().device, PATIENCE), Result::SUCCESS);
        EXPECT_EQ(binder.unbind(PATIENCE), Result::SUCCESS);
    } else {
        EXPECT_EQ(binder.bind(world().device, PATIENCE), Result::SUCCESS);
    }
}

void provokeState(Stage& stage, Things& things, Operation const& operation) {
    auto& client = *stage.client;
    if (operation.offline && !stage.refused) {
        EXPECT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS);
        client.registerListener(&things.ear);
        EXPECT_EQ(client.disconnect(PATIENCE), Error::SUCCESS);
    } else {
        EXPECT_EQ(client.disconnect(PATIENCE), Error::SUCCESS);
        client.registerListener(&things.ear);
        // Does not wait for a state that the operation may end at once.
        auto const result = client.connect("", -1, 0);
        EXPECT_TRUE(result == Error::SUCCESS || result == Error::TIMEOUT) << result;
    }
}

void provokeCleaner(Stage& stage, Things& things, Operation const& /*operation*/) {
    auto const topic = things.root + "/go";
    stage.peer.publish(topic, "now", 2, true);
    things.makeCleaner().clean(topic, std::chrono::milliseconds::zero());
}

void provokeTimer(Stage& stage, Things& things, Operation const& /*operation*/) {
    things.makeTimer();
    things.restartTimer(std::chrono::milliseconds(stage.own ? 1 : 0), !stage.own);
}

void provokeAnother(Stage& stage, Things& things, Operation const& /*operation*/) {
    stage.another = support::testClient(world().broker);
    EXPECT_EQ(stage.another->subscribe(stage.topic("go"), &things.ear, 0), Error::SUCCESS);
    EXPECT_EQ(stage.another->publish(stage.topic("go"), "now", 0, false), Error::SUCCESS);
}

std::map<std::string, Callback> const& ownCallbacks() {
    static std::map<std::string, Callback> const all{
        {"MqttClient", {"", OWN, "message", provokeMessage}},
        {"MqttData", {"", OWN, "value", provokeValue}},
        {"RequestReplyClient", {"", OWN, "reply", provokeReply}},
        {"RequestReplyServer", {"", OWN, "request", provokeRequest}},
        {"SynchronizedTimeBaseMqttProxy", {"", OWN, "synchronized", provokeTime}},
        {"BinderMqttProxy", {"", OWN, "bound 0", provokeBinding}},
        {"TopicCleaner", {"", OWN, "cleaned", provokeCleaner}},
        {"Timer", {"", OWN, "timer", provokeTimer}},
    };
    return all;
}

std::vector<Callback> callbacks() {
    return {
        {"InsideAMessage", WORKER, "message", provokeMessage},
        {"InsideAValue", WORKER, "value", provokeValue},
        {"InsideAReply", WORKER, "reply", provokeReply},
        {"InsideARequest", WORKER, "request", provokeRequest},
        {"InsideATimeCall", WORKER, "synchronized", provokeTime},
        {"InsideABindingCall", WORKER, "bound", provokeBinding},
        {"InsideAStateCall", STATE, "state 2", provokeState},
        {"InsideACleanerCall", CLEANER, "cleaned", provokeCleaner},
        {"InsideATimerCall", TIMER, "timer", provokeTimer},
        {"InsideAnotherClientsCall", ANOTHER, "message", provokeAnother},
        {"InsideItsOwnCall", OWN, "", nullptr},
    };
}

std::string classOf(Operation const& operation) {
    return operation.name.substr(0, operation.name.find('/'));
}

std::string eventOf(Callback const& callback, Operation const& operation, bool refused) {
    if (callback.column == OWN && !operation.ownEvent.empty()) {
        return operation.ownEvent;
    }
    return callback.column == STATE && operation.offline && !refused ? "state 1" : callback.event;
}

class Inside : public testing::Test {
public:
    Inside(Callback callback, Operation operation, bool refused)
        : callback_(std::move(callback)), operation_(std::move(operation)), refused_(refused) {}

    void TestBody() override {
        Stage stage;
        stage.own = callback_.column == OWN;
        auto const callback = stage.own ? ownCallbacks().at(classOf(operation_)) : callback_;
        auto& things = stage.own ? stage.things : stage.callers;
        stage.onWorker = isOnWorker();
        stage.refused = refused_;

        if (operation_.offline && !refused_) {
            EXPECT_EQ(stage.client->disconnect(PATIENCE), Error::SUCCESS);
        }
        operation_.prepare(stage);
        support::Watched<bool> called(false);
        std::atomic<bool> begun{false};
        things.ear.setHook(
            [&, begins = eventOf(callback, operation_, refused_)](std::string const& event) {
                // The ear may hear more while we are in here.
                if (event.rfind(begins, 0) != 0 || begun.exchange(true)) {
                    return;
                }
                call(stage);
                called.change([](bool& done) { done = true; });
            });
        callback.provoke(stage, things, operation_);
        ASSERT_TRUE(called.waitFor([](bool done) { return done; }));
        if (!HasFailure()) {
            operation_.check(stage);
        }
    }

private:
    bool isOnWorker() const {
        auto const name = classOf(operation_);
        auto const ownThread = name == "TopicCleaner" || name == "Timer";
        return callback_.column == WORKER || callback_.column == STATE
               || (callback_.column == OWN && !ownThread);
    }

    void call(Stage& stage) const {
        stage.ear.clear();
        try {
            operation_.call(stage);
        } catch (std::exception const& e) {
            ADD_FAILURE() << e.what();
        }
    }

    Callback callback_;
    Operation operation_;
    bool refused_;
};

std::vector<Operation> const& operations() {
    static auto const all = [] {
        Operations result;
        for (auto const& some :
             {clientOperations(), dataOperations(), requestReplyOperations(), timeBaseOperations(),
              binderOperations(), discoveryOperations(), cleaningOperations(), timerOperations()}) {
            result.insert(result.end(), some.begin(), some.end());
        }
        return result;
    }();
    return all;
}

std::vector<Row> const& table() {
    static auto const rows = tableOfTheGuide("Which operation may be called from which callback");
    return rows;
}

/// What the table says; "" when it says nothing.
std::string verdict(std::string const& operation, Column column) {
    for (auto const& row : table()) {
        for (auto const& name : row.names) {
            if (name == operation && column < row.cells.size()) {
                return row.cells[column];
            }
        }
    }
    return "";
}

int registerTests() {
    int count = 0;
    for (auto const& callback : callbacks()) {
        for (auto const& operation : operations()) {
            auto const says = verdict(operation.name, callback.column);
            if (says != "yes" && says != "refused") {
                continue;
            }
            bool const refused = says == "refused";
            testing::RegisterTest(
                callback.suite.c_str(), operation.name.c_str(), nullptr, nullptr, __FILE__,
                __LINE__, [=]() -> Inside* { return new Inside(callback, operation, refused); });
            ++count;
        }
    }
    return count;
}

int const registered = registerTests();

TEST(TheFirstTableOfTheGuide, HasARowForEveryOperationAndNoOther) {
    std::vector<std::string> inTheTable;
    for (auto const& row : table()) {
        inTheTable.insert(inTheTable.end(), row.names.begin(), row.names.end());
    }
    std::vector<std::string> ours;
    for (auto const& operation : operations()) {
        ours.push_back(operation.name);
    }
    EXPECT_THAT(inTheTable, testing::UnorderedElementsAreArray(ours));
}

TEST(TheFirstTableOfTheGuide, SaysInEveryCellWhatWeUnderstand) {
    for (auto const& row : table()) {
        EXPECT_EQ(row.cells.size(), COLUMNS) << row.names[0];
        for (auto const& cell : row.cells) {
            EXPECT_THAT(cell, testing::AnyOf("yes", "refused", "in vain", "no", "-"))
                << row.names[0];
        }
    }
}

/// By what the test program says of itself.
TEST(TheFirstTableOfTheGuide, HasATestForEveryYesAndEveryRefusal) {
    std::set<std::string> tests;
    auto const& program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        auto const& suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            tests.insert(std::string(suite.name()) + " " + suite.GetTestInfo(j)->name());
        }
    }
    int expected = 0;
    for (auto const& callback : callbacks()) {
        for (auto const& row : table()) {
            auto const& cell = row.cells.at(callback.column);
            if (cell != "yes" && cell != "refused") {
                continue;
            }
            for (auto const& name : row.names) {
                EXPECT_EQ(tests.count(callback.suite + " " + name), 1U)
                    << callback.suite << " " << name;
                ++expected;
            }
        }
    }
    EXPECT_GT(expected, 0);
    EXPECT_EQ(registered, expected);
}

} // namespace
