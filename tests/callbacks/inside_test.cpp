// Calls inside callbacks, as the guide's first table has them. One callback stands for all of its
// column; the tests of each class prove the last column.

#include "guide.hpp"
#include "operations.hpp"

#include <gmock/gmock.h>

#include <map>

namespace {

using Error = mqtt::MqttClient::Error;
using Names = std::vector<std::string>;

constexpr char const* HEADING = "Which operation may be called from which callback";

/// The table's columns, in their order.
enum Column : std::size_t { WORKER, STATE, CLEANER, TIMER, ANOTHER, OWN, COLUMNS };

/// What the cell of the table promises; none where the operation must not be called.
std::optional<Verdict> verdictOf(std::string const& operation, Column column) {
    static std::map<std::string, Verdict> const verdicts{
        {"yes", Verdict::WORKS}, {"refused", Verdict::REFUSED}, {"in vain", Verdict::IN_VAIN}};
    static auto const rows = tableOfTheGuide(HEADING);
    for (auto const& row : rows) {
        if (std::count(row.names.begin(), row.names.end(), operation) > 0) {
            auto const found = verdicts.find(row.cells.at(column));
            return found == verdicts.end() ? std::nullopt : std::optional(found->second);
        }
    }
    return std::nullopt;
}

/// Calls inside one callback.
struct Suite {
    char const* name;
    Column column;
    char const* callback; ///< its name
};

constexpr Suite SUITES[] = {{"InsideAMessage", WORKER, "onMqttMessage"},
                            {"InsideAStateCall", STATE, "onComStateChanged"},
                            {"InsideACleanerCall", CLEANER, "onTopicCleaned"},
                            {"InsideATimerCall", TIMER, "Timer"},
                            {"InsideAnotherClientsCall", ANOTHER, "onMqttMessage"}};

class Inside : public testing::Test {
public:
    Inside(Suite const& suite, Operation operation, Verdict verdict)
        : column_(suite.column),
          callback_(callbackNamed(suite.callback)),
          operation_(std::move(operation)),
          verdict_(verdict),
          disconnected_(verdictOf(operation_.name, WORKER) == Verdict::REFUSED
                        && verdict != Verdict::REFUSED) {}

    void TestBody() override {
        CallbackTest test;
        test.verdict = verdict_;
        if (disconnected_) {
            EXPECT_EQ(test.client->disconnect(TIMEOUT_S), Error::SUCCESS);
        }
        operation_.prepare(test);
        callInside(test);
        if (HasFailure()) {
            return;
        }
        if (verdict_ != Verdict::REFUSED) {
            EXPECT_TRUE(operation_.check(test));
        }
        // After a refusal or a wait in vain the client goes on.
        if (verdict_ != Verdict::WORKS && operation_.name != "MqttClient/disconnect") {
            EXPECT_TRUE(mqtt::test::becomesConnected(*test.client));
            test.flush();
        }
    }

private:
    void callInside(CallbackTest& test) {
        auto& objects = test.callers;
        bool const inDisconnection = column_ == STATE && disconnected_;
        objects.events.setHook(
            [&, begin = inDisconnection ? "state 1" : callback_.event](std::string const& event) {
                // More events may come while the operation is called.
                if (event.rfind(begin, 0) == 0 && !begun_.exchange(true)) {
                    call(test);
                    set(called_);
                }
            });
        if (inDisconnection) {
            provokeDisconnection(test, objects);
        } else if (column_ == ANOTHER) {
            provokeOtherMessage(test, objects);
        } else {
            callback_.provoke(test, objects);
        }
        ASSERT_TRUE(called_.waitFor(mqtt::test::isSet));
    }

    static void provokeDisconnection(CallbackTest& test, Objects& objects) {
        EXPECT_EQ(test.client->connect("", -1, TIMEOUT_S), Error::SUCCESS);
        test.client->registerListener(&objects.events);
        EXPECT_EQ(test.client->disconnect(TIMEOUT_S), Error::SUCCESS);
    }

    static void provokeOtherMessage(CallbackTest& test, Objects& objects) {
        test.another = mqtt::test::testClient(device().broker);
        EXPECT_EQ(test.another->subscribe(test.topic("go"), &objects.events, 0), Error::SUCCESS);
        EXPECT_EQ(test.another->publish(test.topic("go"), "now", 0, false), Error::SUCCESS);
    }

    void call(CallbackTest& test) const {
        test.events.clear();
        try {
            EXPECT_EQ(operation_.call(test), expected());
        } catch (std::exception const& e) {
            ADD_FAILURE() << e.what();
        }
    }

    Outcome expected() const {
        bool const onWorker = column_ == WORKER || column_ == STATE;
        bool const waitsInVain =
            verdict_ == Verdict::IN_VAIN && operation_.kind != Kind::SUCCEEDS_IN_VAIN;
        bool const doesNotWait = operation_.kind == Kind::WAITS_FOR_THE_BROKER && onWorker;
        return verdict_ == Verdict::REFUSED ? Outcome::REFUSED
               : waitsInVain || doesNotWait ? Outcome::TIMED_OUT
                                            : Outcome::SUCCESS;
    }

    Column const column_;
    Callback const& callback_;
    Operation const operation_;
    Verdict const verdict_;
    bool const disconnected_; ///< the operation needs that: on the worker it is refused
    std::atomic<bool> begun_{false};
    mqtt::test::Watched<bool> called_;
};

/// Registers a test for each operation that the table allows.
bool const REGISTERED = [] {
    for (auto const& suite : SUITES) {
        for (auto const& operation : allOperations()) {
            if (auto const verdict = verdictOf(operation.name, suite.column)) {
                testing::RegisterTest(suite.name, operation.name.c_str(), nullptr, nullptr,
                                      __FILE__, __LINE__,
                                      [&suite, operation, verdict]() -> Inside* {
                                          return new Inside(suite, operation, *verdict);
                                      });
            }
        }
    }
    return true;
}();

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
    Names tested;
    for (auto const& operation : allOperations()) {
        tested.push_back(operation.name);
    }
    EXPECT_THAT(inTheTable, testing::UnorderedElementsAreArray(tested));
}

} // namespace
