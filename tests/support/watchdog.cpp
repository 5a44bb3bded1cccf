#include "support/watchdog.hpp"

#include "support/last_words.hpp"
#include "support/stack_dump.hpp"
#include "support/timeout_factor.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

namespace support {

/// Also watches what runs around the cases of a suite: its set-up and tear-down.
class Watchdog::Listener final : public testing::EmptyTestEventListener {
public:
    explicit Listener(Watchdog& dog) : dog_(dog) {}

    void OnTestSuiteStart(testing::TestSuite const& suite) override {
        dog_.watch(std::string(suite.name()) + " (set-up)", defaultLimit());
    }
    void OnTestStart(testing::TestInfo const& test) override {
        dog_.watch(std::string(test.test_suite_name()) + "." + test.name(), defaultLimit());
    }
    void OnTestEnd(testing::TestInfo const& test) override {
        dog_.watch(std::string(test.test_suite_name()) + " (after " + test.name() + ")",
                   defaultLimit());
    }
    void OnTestSuiteEnd(testing::TestSuite const& /*suite*/) override { dog_.rest(); }

private:
    Watchdog& dog_;
};

Watchdog* Watchdog::instance_ = nullptr;

std::chrono::seconds Watchdog::defaultLimit() {
    char const* const text = std::getenv("ZYM_TEST_LIMIT");
    return std::chrono::seconds(text ? std::atoi(text) : 60) * TIMEOUT_FACTOR;
}

void Watchdog::limit(std::chrono::seconds limit) {
    if (instance_ && defaultLimit().count() != 0) {
        instance_->extend(limit * TIMEOUT_FACTOR);
    }
}

Watchdog::Watchdog() : thread_([this] { run(); }) {
    instance_ = this;
    testing::UnitTest::GetInstance()->listeners().Append(new Listener(*this));
}

Watchdog::~Watchdog() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
    instance_ = nullptr;
}

void Watchdog::watch(std::string const& name, std::chrono::seconds limit) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        name_ = name;
    }
    if (limit.count() != 0) {
        extend(limit);
    }
}

void Watchdog::extend(std::chrono::seconds limit) {
    std::lock_guard<std::mutex> lock(mutex_);
    limit_ = limit;
    deadline_ = Clock::now() + limit;
    changed_.notify_all();
}

void Watchdog::rest() {
    std::lock_guard<std::mutex> lock(mutex_);
    deadline_ = Clock::time_point::max();
    changed_.notify_all();
}

void Watchdog::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
        if (deadline_ == Clock::time_point::max()) {
            changed_.wait(lock);
        } else if (Clock::now() >= deadline_) {
            bite();
        } else {
            changed_.wait_until(lock, deadline_);
        }
    }
}

void Watchdog::bite() {
    std::cout << std::flush;
    std::cerr << "\n[WATCHDOG] " << name_ << " has not ended after " << limit_.count()
              << " s. Where the threads are:\n";
    dumpStacks(std::cerr);
    LastWords::speakAll(std::cerr);
    std::cerr << "[WATCHDOG] " << name_ << " FAILED: it hangs" << std::endl;
    std::abort();
}

} // namespace support
