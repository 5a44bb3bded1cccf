#include "support/broker.hpp"

#include <gmock/gmock.h>

#include <csignal>
#include <cstring>
#include <future>
#include <iostream>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Truly;

[[noreturn]] [[gnu::noinline]] void hangForEver() {
    support::Watchdog::limit(std::chrono::seconds(1));
    std::promise<void> never;
    never.get_future().wait();
    std::abort();
}

constexpr char const* ANNOUNCEMENT = "broker process ";

bool isAlive(std::string const& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string number, name, state;
    file >> number >> name >> state;
    return !state.empty() && state != "Z" && state != "X";
}

bool announcedBrokerEnds(std::string const& output) {
    std::string process;
    std::istringstream(output.substr(output.find(ANNOUNCEMENT) + std::strlen(ANNOUNCEMENT)))
        >> process;
    return support::eventually([&] { return !isAlive(process); });
}

/// Each test runs this program once more, up to the statement.
class AWatchdog : public testing::Test {
protected:
    AWatchdog() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

using AKilledTestProgram = AWatchdog;

TEST_F(AWatchdog, EndsAHungTestByNameAndShowsWhereItHangs) {
    EXPECT_DEATH(hangForEver(), AllOf(HasSubstr("AWatchdog.EndsAHungTestByNameAndShowsWhereItHangs"
                                                " FAILED: it hangs"),
                                      HasSubstr("hangForEver")));
}

TEST_F(AWatchdog, EndsTheBrokerAndPrintsItsLog) {
    auto const hangWithABroker = [] {
        support::Broker const broker;
        std::cerr << ANNOUNCEMENT << broker.pid() << std::endl;
        hangForEver();
    };
    EXPECT_DEATH(hangWithABroker(), AllOf(HasSubstr("end of its log"), Truly(announcedBrokerEnds)));
}

TEST_F(AKilledTestProgram, TakesItsBrokerAlong) {
    auto const killWithABroker = [] {
        support::Broker const broker;
        std::cerr << ANNOUNCEMENT << broker.pid() << std::endl;
        std::raise(SIGKILL);
    };
    EXPECT_EXIT(killWithABroker(), testing::KilledBySignal(SIGKILL), Truly(announcedBrokerEnds));
}

TEST(ABroker, SurvivesTheThreadThatRestartedIt) {
    support::Broker broker;
    std::thread([&] {
        broker.stop();
        broker.start();
    }).join();
    EXPECT_TRUE(isAlive(std::to_string(broker.pid())));
}

TEST(AWait, EndsAtItsDeadlineWithFalse) {
    EXPECT_FALSE(support::eventually([] { return false; }, std::chrono::milliseconds(10)));
    support::Watched<int> const value(0);
    EXPECT_FALSE(value.waitFor([](int v) { return v == 7; }, std::chrono::milliseconds(10)));
}

TEST(APortLease, IsNeverGivenTwiceAtATime) {
    support::PortLease const first;
    for (int i = 0; i < 200; ++i) {
        EXPECT_NE(support::PortLease().port(), first.port());
    }
}

} // namespace
