#include "support/watchdog.hpp"

#include "support/broker.hpp"
#include "support/stack_dump.hpp"
#include "support/timeout_factor.hpp"

#include <algorithm>
#include <cstdlib>
#include <iostream>

namespace support {

namespace {

/// A wait until the greatest point of time may end at once: its conversions overflow.
constexpr std::chrono::milliseconds MAX_WAIT{std::chrono::hours(1)};

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
    state_.change([](State& state) { state.stop = true; });
    thread_.join();
}

void Watchdog::restart() {
    limit(defaultLimit());
}

void Watchdog::run() {
    for (State state; !state.stop; state = state_.copy()) {
        auto const now = Clock::now();
        if (now >= state.deadline) {
            endProcess();
        }
        auto const hasChanged = [&](State const& current) {
            return current.stop || current.deadline != state.deadline;
        };
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(state.deadline - now);
        state_.waitFor(hasChanged, std::min(left, MAX_WAIT));
    }
}

void Watchdog::endProcess() {
    std::string const name = nameOfWhatRuns();
    std::cout << std::flush;
    std::cerr << "\n[WATCHDOG] " << name << " has not ended in time. The stacks of all threads:\n";
    dumpStacks(std::cerr);
    Broker::handleHang(std::cerr);
    std::cerr << "[WATCHDOG] " << name << " FAILED: it hangs" << std::endl;
    std::abort();
}

} // namespace support
