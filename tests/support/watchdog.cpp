#include "support/watchdog.hpp"

#include "support/stack_dump.hpp"
#include "support/timeout_factor.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <set>

namespace support {

namespace {

struct HangHandlers {
    std::mutex mutex;
    std::set<HangHandler*> all;
};

HangHandlers& hangHandlers() {
    static HangHandlers instance;
    return instance;
}

} // namespace

/// Also watches what runs around the cases of a suite: its set-up and tear-down.
class Watchdog::Listener final : public testing::EmptyTestEventListener {
public:
    explicit Listener(Watchdog& watchdog) : watchdog_(watchdog) {}

    void OnTestSuiteStart(testing::TestSuite const& suite) override {
        watchdog_.watch(std::string(suite.name()) + " (set-up)");
    }
    void OnTestStart(testing::TestInfo const& test) override {
        watchdog_.watch(std::string(test.test_suite_name()) + "." + test.name());
    }
    void OnTestEnd(testing::TestInfo const& test) override {
        watchdog_.watch(std::string(test.test_suite_name()) + " (after " + test.name() + ")");
    }
    void OnTestSuiteEnd(testing::TestSuite const& /*suite*/) override { watchdog_.stopWatching(); }

private:
    Watchdog& watchdog_;
};

Watchdog* Watchdog::instance_ = nullptr;

std::chrono::seconds Watchdog::defaultLimit() {
    char const* const text = std::getenv("ZYM_TEST_LIMIT");
    return std::chrono::seconds(text ? std::atoi(text) : 60) * TIMEOUT_FACTOR;
}

void Watchdog::limit(std::chrono::seconds limit) {
    if (instance_ && defaultLimit().count() != 0) {
        instance_->setDeadline(limit * TIMEOUT_FACTOR);
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

void Watchdog::watch(std::string const& name) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        name_ = name;
    }
    if (defaultLimit().count() != 0) {
        setDeadline(defaultLimit());
    }
}

void Watchdog::setDeadline(std::chrono::seconds fromNow) {
    std::lock_guard<std::mutex> lock(mutex_);
    limit_ = fromNow;
    deadline_ = Clock::now() + fromNow;
    changed_.notify_all();
}

void Watchdog::stopWatching() {
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
            endProcess();
        } else {
            changed_.wait_until(lock, deadline_);
        }
    }
}

void Watchdog::endProcess() {
    std::cout << std::flush;
    std::cerr << "\n[WATCHDOG] " << name_ << " has not ended after " << limit_.count()
              << " s. The stacks of all threads:\n";
    dumpStacks(std::cerr);
    HangHandler::runAll(std::cerr);
    std::cerr << "[WATCHDOG] " << name_ << " FAILED: it hangs" << std::endl;
    std::abort();
}

HangHandler::HangHandler(std::function<void(std::ostream&)> handle) : handle_(std::move(handle)) {
    std::lock_guard<std::mutex> lock(hangHandlers().mutex);
    hangHandlers().all.insert(this);
}

HangHandler::~HangHandler() {
    std::lock_guard<std::mutex> lock(hangHandlers().mutex);
    hangHandlers().all.erase(this);
}

void HangHandler::runAll(std::ostream& out) {
    std::lock_guard<std::mutex> lock(hangHandlers().mutex);
    for (HangHandler* handler : hangHandlers().all) {
        handler->handle_(out);
    }
}

} // namespace support
