#include "interleavings/scheduler.hpp"

#include "support/allocations.hpp"

#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace interleavings {

namespace {

constexpr Nanoseconds MICROSECOND = 1000;
constexpr Nanoseconds SECOND = 1'000'000'000;
constexpr Nanoseconds START_TIME = 1000 * SECOND;
/// Longer than any scenario: a thread waits for ever while others continue.
constexpr Nanoseconds MAX_DURATION = 600 * SECOND;
constexpr std::size_t MAX_STEPS = 400'000;
constexpr int MAX_YIELDS = 3;

void waitForTurn(Thread& thread) {
    while (sem_wait(&thread.turn) != 0) {
    }
}

char const* nameOf(State state) {
    constexpr char const* NAMES[] = {
        "can continue",           "yields", "waits for a mutex", "waits on a condition",
        "waits to join a thread", "sleeps", "has ended"};
    return NAMES[static_cast<int>(state)];
}

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
        deviatesOneIn_ = RATES[random_() % 4];
    }
    current_ = &add();
    current_->id = pthread_self();
    record_ = &record;
}

Thread* Scheduler::find(pthread_t id) {
    auto const found = std::find_if(threads_.rbegin(), threads_.rend(), [id](auto const& thread) {
        return !thread.joined && pthread_equal(thread.id, id) != 0;
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

void Scheduler::begin(Thread& thread) {
    waitForTurn(thread);
}

void Scheduler::end() {
    current_->state = State::ENDED;
    wake(State::ON_THREAD, current_, true);
    handOver("ends");
}

void Scheduler::switchPoint() {
    if (exploring_) {
        handOver("is preempted");
    }
}

void Scheduler::switchPointAt(void const* object) {
    auto const* const address = static_cast<char const*>(object);
    bool const isIgnored = std::any_of(ignored_.begin(), ignored_.end(), [&](auto const& range) {
        return !std::less<>()(address, range.first) && std::less<>()(address, range.second);
    });
    if (!isIgnored) {
        switchPoint();
    }
}

void Scheduler::ignoreObjectsIn(void const* begin, std::size_t size) {
    auto const* const first = static_cast<char const*>(begin);
    ignored_.emplace_back(first, first + size);
}

bool Scheduler::refuses(Explored resource) {
    if ((plan_.explored & resource) == 0 || refused_) {
        return false;
    }
    refused_ = choose(2) != 0;
    if (refused_ && plan_.traced) {
        recordEvent(*current_, "gets no memory or thread", "", -1);
    }
    return refused_;
}

bool Scheduler::block(State reason, void const* object, Nanoseconds deadline) {
    support::UncountedAllocations const uncounted;
    auto& self = *current_;
    self.state = reason;
    self.object = object;
    self.deadline = deadline;
    self.timedOut = false;
    waiting_.push_back(&self);
    resetYields();
    handOver(nameOf(reason));
    return !self.timedOut;
}

void Scheduler::yield() {
    current_->state = State::YIELDED;
    ++current_->yields;
    handOver(nameOf(State::YIELDED));
}

void Scheduler::wake(State reason, void const* object, bool all) {
    auto const before = waiting_;
    for (auto* const thread : before) {
        if (thread->state != reason || thread->object != object) {
            continue;
        }
        makeReady(*thread, false);
        if (!all) {
            return;
        }
    }
}

bool Scheduler::isWaitedFor(State reason, void const* object) const {
    return std::any_of(waiting_.begin(), waiting_.end(), [&](auto const* thread) {
        return thread->state == reason && thread->object == object;
    });
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
    auto possible = ways();
    for (; possible.empty(); possible = ways()) {
        passTimeToNextDeadline();
    }
    auto const& way = possible[choose(possible.size())];
    if (way.passTo != NEVER) {
        passTimeTo(way.passTo);
    }
    resume(*way.thread, reason);
}

void Scheduler::resume(Thread& next, char const* reason) {
    auto& self = *current_;
    if (self.state == State::YIELDED) {
        self.state = State::READY;
    }
    if (&next == &self) {
        return;
    }
    if (plan_.traced) {
        recordEvent(self, reason, "next", next.number);
    }
    current_ = &next;
    // Read now: once the other thread has its turn, it may end the run and destroy this object.
    bool const ended = self.state == State::ENDED;
    sem_post(&next.turn);
    if (!ended) {
        waitForTurn(self);
    }
}

/// The first way is what happens without the explorer: the current thread continues, or the next
/// one.
std::vector<Scheduler::Way> Scheduler::ways() {
    bool const yields = current_->state == State::YIELDED;
    std::vector<Way> result;
    auto const first = static_cast<std::size_t>(current_->number);
    for (std::size_t i = 0; i < threads_.size(); ++i) {
        auto& thread = threads_[(first + i) % threads_.size()];
        if (thread.state == State::READY && !(yields && thread.yields >= MAX_YIELDS)) {
            result.push_back({&thread, NEVER});
        }
    }
    if (result.empty() && yields && current_->yields < MAX_YIELDS) {
        result.push_back({current_, NEVER});
    }
    if (!result.empty() && exploring_ && (plan_.explored & DEADLINES) != 0) {
        for (auto* const thread : waiting_) {
            if (thread->deadline != NEVER) {
                result.push_back({thread, thread->deadline});
            }
        }
    }
    return result;
}

std::size_t Scheduler::choose(std::size_t ways) {
    if (!exploring_ || ways < 2) {
        return 0;
    }
    auto const choice = record_->choiceCount;
    if (choice == record_->choices.size()) {
        fail("makes too many choices");
    }
    auto const taken = decide(choice, ways);
    record_->choices[choice] = {static_cast<std::uint8_t>(taken), static_cast<std::uint8_t>(ways)};
    ++record_->choiceCount;
    return taken;
}

std::size_t Scheduler::decide(std::size_t choice, std::size_t ways) {
    auto const& schedule = plan_.schedule;
    while (nextDeviation_ < schedule.size() && schedule[nextDeviation_].choice < choice) {
        ++nextDeviation_;
    }
    if (nextDeviation_ < schedule.size() && schedule[nextDeviation_].choice == choice) {
        return std::min<std::size_t>(schedule[nextDeviation_].taken, ways - 1);
    }
    bool const deviates = plan_.seed && random_() % deviatesOneIn_ == 0;
    return deviates ? random_() % ways : 0;
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

void Scheduler::resetYields() {
    for (auto& thread : threads_) {
        thread.yields = 0;
    }
}

void Scheduler::makeReady(Thread& thread, bool timedOut) {
    waiting_.erase(std::find(waiting_.begin(), waiting_.end(), &thread));
    thread.state = State::READY;
    thread.object = nullptr;
    thread.holder = -1;
    thread.deadline = NEVER;
    thread.timedOut = timedOut;
    resetYields();
}

void Scheduler::fail(char const* text) {
    std::snprintf(record_->failure.data(), record_->failure.size(), "%s", text);
    for (auto& thread : threads_) {
        if (plan_.traced && thread.state != State::ENDED) {
            recordEvent(thread, &thread == current_ ? "is running" : nameOf(thread.state),
                        "held by", thread.holder);
        }
    }
    _exit(1);
}

void Scheduler::succeed() {
    record_->completed = true;
    _exit(0);
}

void Scheduler::recordEvent(Thread& thread, char const* what, char const* relation,
                            int otherThread) {
    auto& stack = thread.stack;
    if (&thread == current_) {
        stack.count = backtrace(stack.frames.data(), static_cast<int>(stack.frames.size()));
    }
    if (record_->eventCount < record_->events.size()) {
        record_->events[record_->eventCount++] = {
            now_, record_->choiceCount, thread.number, what, relation, otherThread, stack};
    }
}

} // namespace interleavings
