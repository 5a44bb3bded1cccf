#include "support/watchdog.hpp"

#include "mqtt/test/broker.hpp"
#include "mqtt/test/eventually.hpp"

#include <gmock/gmock.h>

#include <condition_variable>
#include <csignal>
#include <iostream>
#include <mutex>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Truly;

[[noreturn]] [[gnu::noinline]] void hangForEver() {
    setenv("ZYM_TEST_LIMIT", "1", 1); // also where the environment says that there is no limit
    support::Watchdog::limit(std::chrono::seconds(1));
    // ThreadSanitizer delivers signals in this wait, and not in that for a future.
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable().wait(lock, [] { return false; });
    std::abort();
}

bool isAlive(std::string const& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string number, name, state;
    file >> number >> name >> state;
    return !state.empty() && state != "Z" && state != "X";
}

/// Of the process whose number is at the end of the first line.
bool brokerEnds(std::string const& output) {
    std::string const line = output.substr(0, output.find('\n'));
    return mqtt::test::eventually([&] { return !isAlive(line.substr(line.rfind(' ') + 1)); });
}

void afterStartingABroker(void (*action)()) {
    mqtt::test::Broker const broker;
    std::cerr << "broker process " << broker.pid() << std::endl;
    action();
}

/// Each test runs this program once more, up to the statement.
class AWatchdog : public testing::Test {
protected:
    AWatchdog() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

using AKilledTestProgram = AWatchdog;

TEST_F(AWatchdog, EndsAHungTestByNameAndShowsWhereItHangsAndTheBrokersLog) {
    EXPECT_DEATH(afterStartingABroker(hangForEver),
                 AllOf(HasSubstr("AndShowsWhereItHangsAndTheBrokersLog FAILED: it hangs"),
                       HasSubstr("hangForEver"), HasSubstr("end of its log"), Truly(brokerEnds)));
}

TEST_F(AKilledTestProgram, TakesItsBrokerAlong) {
    EXPECT_EXIT(afterStartingABroker([] { std::raise(SIGKILL); }), testing::KilledBySignal(SIGKILL),
                Truly(brokerEnds));
}

TEST(ABroker, SurvivesTheThreadThatRestartedIt) {
    mqtt::test::Broker broker;
    std::thread([&] {
        broker.stop();
        broker.start();
    }).join();
    EXPECT_TRUE(isAlive(std::to_string(broker.pid())));
}

} // namespace
