#include "interleavings/scenario.hpp"

#include "support/allocations.hpp"

#include <stdexcept>

namespace interleavings {

bool makesMistake() {
    return Scheduler::instance().plan().mistaken;
}

void expect(bool holds, char const* requirement) {
    if (!holds) {
        Scheduler::instance().fail(requirement);
    }
}

void pass(std::chrono::nanoseconds time) {
    auto& scheduler = Scheduler::instance();
    static_cast<void>(scheduler.block("sleeps", nullptr, scheduler.now() + time.count()));
}

void maybePause() {
    if (maybe()) {
        pass(std::chrono::milliseconds(2));
    }
}

bool maybe() {
    return Scheduler::instance().choose(2) != 0;
}

void maybeThrow() {
    if (maybe()) {
        throw std::runtime_error("thrown by a callback");
    }
}

bool MemoryMayFail::refuses() {
    support::UncountedAllocations const uncounted;
    return onThisThread && Scheduler::instance().refuses(NO_MEMORY);
}

void CallbackCheck::onCallback() {
    expect(!closed_, "a callback comes after the end of its object");
    ++count_;
    ++running_;
    Scheduler::instance().maySwitch();
    --running_;
    if (action_) {
        action_(); // may throw, or end the calling object
    }
}

void CallbackCheck::close() {
    expect(running_ == 0, "an object ends during its callback");
    closed_ = true;
}

std::vector<Scenario>& scenarios() {
    static std::vector<Scenario> all;
    return all;
}

} // namespace interleavings
