#include "support/watchdog.hpp"

#include "support/stack_dump.hpp"
#include "support/timeout_factor.hpp"

#include <cstdlib>
#include <iostream>

namespace support {

namespace {

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

} // namespace

Watchdog* Watchdog::instance_ = nullptr;

void Watchdog::limit(std::chrono::seconds limit) {
    if (instance_ && defaultLimit().count() != 0) {
        instance_->setDeadline(Clock::now() + limit * TIMEOUT_FACTOR);
    }
}

Watchdog::Watchdog() : thread_([this] { run(); }) {
    instance_ = this;
    testing::UnitTest::GetInstance()->listeners().Append(this);
}

Watchdog::~Watchdog() {
    testing::UnitTest::GetInstance()->listeners().Release(this);
    instance_ = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void Watchdog::restart() {
    limit(defaultLimit());
}

void Watchdog::setDeadline(Clock::time_point deadline) {
    std::lock_guard<std::mutex> lock(mutex_);
    deadline_ = deadline;
    changed_.notify_all();
}

void Watchdog::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
        if (deadline_ == Clock::time_point::max()) {
            changed_.wait(lock);
        } else if (Clock::now() >= deadline_) {
            endProcess();
        } else {
            changed_.wait_until(lock, deadline_);
        }
    }
}

void Watchdog::endProcess() {
    std::string const name = nameOfWhatRuns();
    std::cout << std::flush;
    std::cerr << "\n[WATCHDOG] " << name << " has not ended in time. The stacks of all threads:\n";
    dumpStacks(std::cerr);
    HangHandler::runAll(std::cerr);
    std::cerr << "[WATCHDOG] " << name << " FAILED: it hangs" << std::endl;
    std::abort();
}

} // namespace support
