#include "interleavings/scheduler.hpp"

#include "support/allocations.hpp"

#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace interleavings {

namespace {

constexpr Nanoseconds MICROSECOND = 1000;
constexpr Nanoseconds SECOND = 1'000'000'000;
constexpr Nanoseconds START_TIME = 1000 * SECOND;
/// Longer than any scenario: a thread waits for ever while others continue.
constexpr Nanoseconds MAX_DURATION = 600 * SECOND;
constexpr std::size_t MAX_STEPS = 400'000;
} // namespace

Scheduler& Scheduler::instance() {
    static Scheduler scheduler;
    return scheduler;
}

void Scheduler::start(Plan const& plan, RunRecord& record) {
    plan_ = plan;
    now_ = START_TIME;
    if (plan.seed) {
        random_.seed(*plan.seed);
        constexpr unsigned RATES[] = {4, 10, 25, 60};
        randomOneIn_ = RATES[random_() % 4];
    }
    current_ = &add();
    current_->id = pthread_self();
    record_ = &record;
}

/// The newest one: the system gives the id of a thread that was joined again.
Thread* Scheduler::find(pthread_t id) {
    auto const found = std::find_if(threads_.rbegin(), threads_.rend(), [id](auto const& thread) {
        return pthread_equal(thread.id, id) != 0;
    });
    return found == threads_.rend() ? nullptr : &*found;
}

Thread& Scheduler::add() {
    support::UncountedAllocations const uncounted;
    auto& thread = threads_.emplace_back();
    thread.number = static_cast<int>(threads_.size()) - 1;
    sem_init(&thread.turn, 0, 0);
    return thread;
}

void Scheduler::waitForTurn(Thread& thread) {
    while (sem_wait(&thread.turn) != 0) {
    }
}

void Scheduler::end() {
    current_->state = State::ENDED;
    wake(current_, true);
    handOver("ends");
}

void Scheduler::maySwitch() {
    if (exploring_) {
        handOver("is preempted");
    }
}

void Scheduler::maySwitchAt(void const* object) {
    auto const address = reinterpret_cast<std::uintptr_t>(object);
    if (std::none_of(ignored_.begin(), ignored_.end(), [address](auto const& range) {
            return address >= range.first && address - range.first < range.second;
        })) {
        maySwitch();
    }
}

void Scheduler::ignoreObjectsIn(void const* begin, std::size_t size) {
    ignored_.emplace_back(reinterpret_cast<std::uintptr_t>(begin), size);
}

bool Scheduler::refuses() {
    if ((plan_.explored & RESOURCES) == 0 || refused_) {
        return false;
    }
    refused_ = choose(2) != 0;
    if (refused_ && plan_.traced) {
        recordEvent(*current_, "gets no memory or thread", -1);
    }
    return refused_;
}

bool Scheduler::block(char const* activity, void const* object, Nanoseconds deadline) {
    support::UncountedAllocations const uncounted;
    auto& self = *current_;
    self.state = State::WAITING;
    self.activity = activity;
    self.object = object;
    self.deadline = deadline;
    waiting_.push_back(&self);
    handOver(activity);
    return !self.timedOut;
}

void Scheduler::wake(void const* object, bool all) {
    auto const before = waiting_;
    for (auto* const thread : before) {
        if (thread->object == object) {
            makeReady(*thread, false);
            if (!all) {
                return;
            }
        }
    }
}

bool Scheduler::isWaitedFor(void const* object) const {
    return std::any_of(waiting_.begin(), waiting_.end(),
                       [object](auto const* thread) { return thread->object == object; });
}

Nanoseconds Scheduler::now() {
    now_ += MICROSECOND;
    return now_;
}

void Scheduler::handOver(char const* reason) {
    support::UncountedAllocations const uncounted;
    if (++steps_ > MAX_STEPS) {
        fail("does not end");
    }
    passTimeTo(now_);
    auto possible = options();
    for (; possible.empty(); possible = options()) {
        passTimeToNextDeadline();
    }
    auto& next = *possible[choose(possible.size())];
    if (next.state == State::WAITING) {
        passTimeTo(next.deadline);
    }
    resume(next, reason);
}

void Scheduler::resume(Thread& next, char const* reason) {
    auto& self = *current_;
    if (&next == &self) {
        return;
    }
    if (plan_.traced) {
        recordEvent(self, reason, next.number);
    }
    current_ = &next;
    // Read now: once the other thread has its turn, it may end the run and destroy this object.
    bool const ended = self.state == State::ENDED;
    sem_post(&next.turn);
    if (!ended) {
        waitForTurn(self);
    }
}

/// The threads that can continue; the first one does so without the explorer: the current one, or
/// the next. With DEADLINES also those that wait until a deadline.
std::vector<Thread*> Scheduler::options() {
    std::vector<Thread*> result;
    auto const first = static_cast<std::size_t>(current_->number);
    for (std::size_t i = 0; i < threads_.size(); ++i) {
        auto& thread = threads_[(first + i) % threads_.size()];
        if (thread.state == State::READY) {
            result.push_back(&thread);
        }
    }
    if (!result.empty() && exploring_ && (plan_.explored & DEADLINES) != 0) {
        std::copy_if(waiting_.begin(), waiting_.end(), std::back_inserter(result),
                     [](auto const* thread) { return thread->deadline != NEVER; });
    }
    return result;
}

std::size_t Scheduler::choose(std::size_t options) {
    if (!exploring_ || options < 2) {
        return 0;
    }
    auto const choice = record_->choiceCount;
    if (choice == record_->choices.size()) {
        fail("makes too many choices");
    }
    auto const taken = optionAt(choice, options);
    record_->choices[choice] = {static_cast<std::uint8_t>(taken),
                                static_cast<std::uint8_t>(options)};
    ++record_->choiceCount;
    return taken;
}

std::size_t Scheduler::optionAt(std::size_t choice, std::size_t options) {
    auto const planned = plan_.schedule.find(choice);
    if (planned != plan_.schedule.end()) {
        return std::min(planned->second, options - 1);
    }
    bool const isRandom = plan_.seed && random_() % randomOneIn_ == 0;
    return isRandom ? random_() % options : 0;
}

void Scheduler::passTimeTo(Nanoseconds moment) {
    now_ = std::max(now_, moment);
    auto const before = waiting_;
    for (auto* const thread : before) {
        if (thread->deadline != NEVER && thread->deadline <= now_) {
            makeReady(*thread, true);
        }
    }
}

void Scheduler::passTimeToNextDeadline() {
    Nanoseconds next = NEVER;
    for (auto const* const thread : waiting_) {
        if (thread->deadline != NEVER && (next == NEVER || thread->deadline < next)) {
            next = thread->deadline;
        }
    }
    if (next == NEVER) {
        fail("no thread can continue");
    }
    if (next > START_TIME + MAX_DURATION) {
        fail("a thread waits for ever");
    }
    passTimeTo(next);
}

void Scheduler::makeReady(Thread& thread, bool timedOut) {
    waiting_.erase(std::find(waiting_.begin(), waiting_.end(), &thread));
    thread.state = State::READY;
    thread.activity = "can continue";
    thread.object = nullptr;
    thread.deadline = NEVER;
    thread.timedOut = timedOut;
}

void Scheduler::fail(char const* text) {
    std::snprintf(record_->failure.data(), record_->failure.size(), "%s", text);
    for (auto& thread : threads_) {
        if (plan_.traced && thread.state != State::ENDED) {
            recordEvent(thread, &thread == current_ ? "is running" : thread.activity, -1);
        }
    }
    _exit(1);
}

void Scheduler::succeed() {
    _exit(SUCCESS_STATUS);
}

void Scheduler::recordEvent(Thread& thread, char const* what, int next) {
    auto& stack = thread.stack;
    if (&thread == current_) {
        stack.count = backtrace(stack.frames.data(), static_cast<int>(stack.frames.size()));
    }
    if (record_->eventCount < record_->events.size()) {
        record_->events[record_->eventCount++] = {
            now_, record_->choiceCount, thread.number, what, next, stack};
    }
}

} // namespace interleavings
