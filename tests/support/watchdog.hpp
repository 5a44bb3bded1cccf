#pragma once

#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <set>
#include <thread>

namespace support {

/// Ends the process when a test case hangs, or the set-up or tear-down of its suite, and prints its
/// name, the stacks of all threads and what the `HangHandler`s add. `main` of the test programs
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

    static void restart();
    void setDeadline(Clock::time_point deadline);
    void run();
    [[noreturn]] void endProcess();

    static Watchdog* instance_;

    std::mutex mutex_; ///< guards what follows
    std::condition_variable changed_;
    Clock::time_point deadline_ = Clock::time_point::max();
    bool stop_ = false;
    std::thread thread_;
};

/// What an object reports and cleans up when the watchdog ends the process, as no destructor runs
/// then.
class HangHandler {
public:
    /// @param handle runs on the watchdog's thread while the test hangs: it must not take a lock
    ///        that the test may hold
    explicit HangHandler(std::function<void(std::ostream&)> handle) : handle_(std::move(handle)) {
        all().change([this](Set& handlers) { handlers.insert(this); });
    }
    ~HangHandler() {
        all().change([this](Set& handlers) { handlers.erase(this); });
    }
    HangHandler(HangHandler const&) = delete;
    HangHandler& operator=(HangHandler const&) = delete;

    static void runAll(std::ostream& out) {
        all().read([&](Set const& handlers) {
            for (HangHandler* handler : handlers) {
                handler->handle_(out);
            }
        });
    }

private:
    using Set = std::set<HangHandler*>;

    static Watched<Set>& all() {
        static Watched<Set> instance;
        return instance;
    }

    std::function<void(std::ostream&)> const handle_;
};

} // namespace support
