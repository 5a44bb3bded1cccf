#include "support/watchdog.hpp"

#include "mqtt/test/broker.hpp"
#include "mqtt/test/watched.hpp"
#include "support/stack_dump.hpp"
#include "support/timeout_factor.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

struct State {
    Clock::time_point deadline = Clock::time_point::max();
    bool stop = false;
};

mqtt::test::Watched<State> state;

void setDeadline(Clock::time_point deadline) {
    state.change([&](State& current) { current.deadline = deadline; });
}

std::chrono::seconds defaultLimit() {
    char const* const text = std::getenv("ZYM_TEST_LIMIT");
    return std::chrono::seconds(text ? std::atoi(text) : 60);
}

/// Of the test, or of the suite whose set-up or tear-down runs.
std::string nameOfWhatRuns() {
    auto const* const suite = testing::UnitTest::GetInstance()->current_test_suite();
    auto const* const test = testing::UnitTest::GetInstance()->current_test_info();
    return test    ? std::string(test->test_suite_name()) + "." + test->name()
           : suite ? suite->name()
                   : "";
}

[[noreturn]] void endProcess() {
    std::string const name = nameOfWhatRuns();
    std::cout << std::flush;
    std::cerr << "\n[WATCHDOG] " << name << " has not ended in time. The stacks of all threads:\n";
    support::dumpStacks(std::cerr);
    mqtt::test::Broker::handleHang(std::cerr);
    std::cerr << "[WATCHDOG] " << name << " FAILED: it hangs" << std::endl;
    std::abort();
}

void watch() {
    /// A wait until the greatest point of time may end at once: its conversions overflow.
    constexpr std::chrono::milliseconds MAX_WAIT{std::chrono::hours(1)};
    for (State seen; !seen.stop; seen = state.copy()) {
        auto const left = seen.deadline - Clock::now();
        if (left <= left.zero()) {
            endProcess();
        }
        auto const hasChanged = [&](State const& current) {
            return current.stop || current.deadline != seen.deadline;
        };
        state.waitFor(hasChanged,
                      std::min(std::chrono::ceil<std::chrono::milliseconds>(left), MAX_WAIT));
    }
}

/// Each of these parts has the time: the set-up of a suite, a test, what is behind the test.
class Restarter : public testing::EmptyTestEventListener {
    void OnTestSuiteStart(testing::TestSuite const& /*suite*/) override { restart(); }
    void OnTestStart(testing::TestInfo const& /*test*/) override { restart(); }
    void OnTestEnd(testing::TestInfo const& /*test*/) override { restart(); }
    void OnTestSuiteEnd(testing::TestSuite const& /*suite*/) override {
        setDeadline(Clock::time_point::max());
    }

    static void restart() { support::Watchdog::limit(defaultLimit()); }
};

} // namespace

void support::Watchdog::limit(std::chrono::seconds limit) {
    if (defaultLimit().count() != 0) {
        setDeadline(Clock::now() + limit * TIMEOUT_FACTOR);
    }
}

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv); // initialises GoogleTest too
    testing::UnitTest::GetInstance()->listeners().Append(new Restarter);
    setenv("ZYM_MQTT_TEST_BROKER", ZYM_MOSQUITTO_PROGRAM, 0);
    mqtt::test::Broker::printLogWhen(&testing::Test::HasFailure);
    std::thread watchdog(watch);
    int const result = RUN_ALL_TESTS();
    state.change([](State& current) { current.stop = true; });
    watchdog.join();
    return result;
}
