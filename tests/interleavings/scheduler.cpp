#include "interleavings/scheduler.hpp"

#include "support/allocations.hpp"

#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace interleavings {

namespace {

constexpr Nanoseconds MICROSECOND = 1000;
constexpr Nanoseconds SECOND = 1'000'000'000;
constexpr Nanoseconds BEGINNING = 1000 * SECOND;
/// No scenario lasts so long: somebody waits without end while others come and go.
constexpr Nanoseconds LONGEST_RUN = 600 * SECOND;
constexpr std::size_t MOST_STEPS = 400'000;
constexpr int MOST_YIELDS = 3;

void waitForTurn(Thread& thread) {
    while (sem_wait(&thread.turn) != 0) {
    }
}

char const* nameOf(State state) {
    switch (state) {
    case State::READY:
        return "could go on";
    case State::YIELDED:
        return "lets others go first";
    case State::ON_MUTEX:
        return "waits for a mutex";
    case State::ON_CONDITION:
        return "waits on a condition";
    case State::ON_THREAD:
        return "waits for a thread's end";
    case State::ASLEEP:
        return "sleeps";
    default:
        return "has ended";
    }
}

} // namespace

Scheduler& Scheduler::instance() {
    static Scheduler scheduler;
    return scheduler;
}

void Scheduler::start(Plan const& plan, Journal& journal) {
    plan_ = plan;
    now_ = BEGINNING;
    if (plan.seed) {
        random_.seed(*plan.seed);
        constexpr unsigned SELDOM[] = {4, 10, 25, 60};
        oneIn_ = SELDOM[random_() % 4];
    }
    current_ = &add();
    current_->id = pthread_self();
    journal_ = &journal;
}

Thread* Scheduler::find(pthread_t id) {
    auto const found = std::find_if(threads_.rbegin(), threads_.rend(), [id](auto const& thread) {
        return !thread.joined && pthread_equal(thread.id, id) != 0;
    });
    return found == threads_.rend() ? nullptr : &*found;
}

Thread& Scheduler::add() {
    support::UncountedAllocations const ours;
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

void Scheduler::point() {
    if (exploring_) {
        handOver("is stopped");
    }
}

int Scheduler::pick(int among) {
    int const taken = choose(static_cast<std::size_t>(among), false);
    if (taken != 0 && plan_.traced) {
        note(*current_, "goes another way");
    }
    return taken;
}

bool Scheduler::refuses(Explored what) {
    if ((plan_.explored & what) == 0 || refused_) {
        return false;
    }
    refused_ = pick(2) != 0;
    return refused_;
}

bool Scheduler::block(State why, void const* object, Nanoseconds deadline) {
    auto& self = *current_;
    self.state = why;
    self.object = object;
    self.deadline = deadline;
    self.timedOut = false;
    waiting_.push_back(&self);
    somethingHappened();
    handOver(nameOf(why));
    return !self.timedOut;
}

void Scheduler::yield() {
    current_->state = State::YIELDED;
    ++current_->yields;
    handOver(nameOf(State::YIELDED));
}

void Scheduler::wake(State why, void const* object, bool all) {
    auto const before = waiting_;
    for (auto* const thread : before) {
        if (thread->state != why || thread->object != object) {
            continue;
        }
        ready(*thread, false);
        if (!all) {
            return;
        }
    }
}

bool Scheduler::isWaitedFor(State why, void const* object) const {
    return std::any_of(waiting_.begin(), waiting_.end(), [&](auto const* thread) {
        return thread->state == why && thread->object == object;
    });
}

Nanoseconds Scheduler::now() {
    now_ += MICROSECOND;
    return now_;
}

void Scheduler::handOver(char const* reason) {
    support::UncountedAllocations const ours;
    if (++steps_ > MOST_STEPS) {
        fail("does not come to an end");
    }
    passTimeTo(now_);
    auto possible = ways();
    while (possible.empty()) {
        if (!passTime()) {
            fail("nobody can go on");
        }
        possible = ways();
    }
    bool const couldGoOn = current_->state == State::READY;
    auto const& way = possible[static_cast<std::size_t>(choose(possible.size(), couldGoOn))];
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
        note(next, reason);
    }
    current_ = &next;
    // The other one may end the run, and this one be gone, as soon as it has its turn.
    bool const ended = self.state == State::ENDED;
    sem_post(&next.turn);
    if (!ended) {
        waitForTurn(self);
    }
}

/// The first one is what happens without an explorer: the current thread goes on, or the next one.
std::vector<Scheduler::Way> Scheduler::ways() {
    bool const yields = current_->state == State::YIELDED;
    std::vector<Way> result;
    auto const first = static_cast<std::size_t>(current_->number);
    for (std::size_t i = 0; i < threads_.size(); ++i) {
        auto& thread = threads_[(first + i) % threads_.size()];
        if (thread.state == State::READY && !(yields && thread.yields >= MOST_YIELDS)) {
            result.push_back({&thread, NEVER});
        }
    }
    if (result.empty() && yields && current_->yields < MOST_YIELDS) {
        result.push_back({current_, NEVER});
    }
    if (!result.empty() && exploring_ && (plan_.explored & DEADLINES) != 0) {
        addWaits(result);
    }
    return result;
}

void Scheduler::addWaits(std::vector<Way>& ways) {
    for (auto* const thread : waiting_) {
        if (thread->deadline != NEVER) {
            ways.push_back({thread, thread->deadline});
        }
    }
}

int Scheduler::choose(std::size_t among, bool preempts) {
    if (!exploring_ || among < 2) {
        return 0;
    }
    auto const at = journal_->choiceCount;
    if (at == journal_->choices.size()) {
        fail("makes too many choices");
    }
    int const taken = decide(at, among);
    journal_->choices[at] = {static_cast<std::uint8_t>(taken), static_cast<std::uint8_t>(among),
                             preempts};
    ++journal_->choiceCount;
    return taken;
}

int Scheduler::decide(std::size_t at, std::size_t among) {
    auto const& deviations = plan_.schedule.deviations;
    while (nextDeviation_ < deviations.size() && deviations[nextDeviation_].at < at) {
        ++nextDeviation_;
    }
    if (nextDeviation_ < deviations.size() && deviations[nextDeviation_].at == at) {
        return static_cast<int>(std::min<std::size_t>(deviations[nextDeviation_].taken, among - 1));
    }
    if (plan_.seed && random_() % oneIn_ == 0) {
        return static_cast<int>(random_() % among);
    }
    return 0;
}

void Scheduler::passTimeTo(Nanoseconds moment) {
    now_ = std::max(now_, moment);
    auto const before = waiting_;
    for (auto* const thread : before) {
        if (thread->deadline != NEVER && thread->deadline <= now_) {
            ready(*thread, true);
        }
    }
}

bool Scheduler::passTime() {
    Nanoseconds next = NEVER;
    for (auto const* const thread : waiting_) {
        if (thread->deadline != NEVER && (next == NEVER || thread->deadline < next)) {
            next = thread->deadline;
        }
    }
    if (next == NEVER) {
        return false;
    }
    if (next > BEGINNING + LONGEST_RUN) {
        fail("somebody waits for ever");
    }
    passTimeTo(next);
    return true;
}

void Scheduler::somethingHappened() {
    for (auto& thread : threads_) {
        thread.yields = 0;
    }
}

void Scheduler::ready(Thread& thread, bool timedOut) {
    waiting_.erase(std::find(waiting_.begin(), waiting_.end(), &thread));
    thread.state = State::READY;
    thread.object = nullptr;
    thread.deadline = NEVER;
    thread.timedOut = timedOut;
    somethingHappened();
}

void Scheduler::fail(char const* text) {
    std::snprintf(journal_->failure.data(), journal_->failure.size(), "%s", text);
    if (plan_.traced) {
        noteWaiting();
    }
    _exit(1);
}

void Scheduler::pass() {
    journal_->ended = true;
    _exit(0);
}

void Scheduler::note(Thread const& next, char const* reason) {
    auto& self = *current_;
    look(self.place);
    if (journal_->switchCount == journal_->switches.size()) {
        return;
    }
    journal_->switches[journal_->switchCount++] = {
        now_,        static_cast<std::uint32_t>(journal_->choiceCount),
        self.number, next.number,
        reason,      self.place};
}

void Scheduler::noteWaiting() {
    look(current_->place);
    for (auto const& thread : threads_) {
        if (thread.state == State::ENDED || journal_->waitingCount == journal_->waiting.size()) {
            continue;
        }
        int const holder =
            thread.state == State::ON_MUTEX && holderOf_ != nullptr ? holderOf_(thread.object) : -1;
        journal_->waiting[journal_->waitingCount++] = {
            thread.number, &thread == current_ ? "is running" : nameOf(thread.state), holder,
            thread.place};
    }
}

void Scheduler::look(Place& place) const {
    place.count = backtrace(place.frames.data(), static_cast<int>(place.frames.size()));
}

} // namespace interleavings
