#pragma once

#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace support {

/// Ends the process when a test case hangs, or the set-up or tear-down of its suite, and prints its
/// name, the stacks of all threads and the ends of the brokers' logs. `main` of the test programs
/// owns the one watchdog.
class Watchdog : private testing::EmptyTestEventListener {
public:
    /// Gives the running test case this long, times `TIMEOUT_FACTOR`, from now on. Each has 60 s,
    /// or the environment's ZYM_TEST_LIMIT in seconds (0: no limit, for a debugger), times that.
    static void limit(std::chrono::seconds limit);

    Watchdog();
    ~Watchdog() override;
    Watchdog(Watchdog const&) = delete;
    Watchdog& operator=(Watchdog const&) = delete;

private:
    using Clock = std::chrono::steady_clock;

    // Each of these parts has the time: the set-up of a suite, a test, what is behind the test.
    void OnTestSuiteStart(testing::TestSuite const& /*suite*/) override { restart(); }
    void OnTestStart(testing::TestInfo const& /*test*/) override { restart(); }
    void OnTestEnd(testing::TestInfo const& /*test*/) override { restart(); }
    void OnTestSuiteEnd(testing::TestSuite const& /*suite*/) override {
        setDeadline(Clock::time_point::max());
    }

    struct State {
        Clock::time_point deadline = Clock::time_point::max();
        bool stop = false;
    };

    static void restart();
    void setDeadline(Clock::time_point deadline) {
        state_.change([&](State& state) { state.deadline = deadline; });
    }
    void run();
    [[noreturn]] static void endProcess();

    static Watchdog* instance_;

    Watched<State> state_;
    std::thread thread_;
};

} // namespace support
