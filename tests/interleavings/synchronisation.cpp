#include "interleavings/synchronisation.hpp"

#include "support/allocations.hpp"

#include <algorithm>
#include <functional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace interleavings {

namespace {

struct Held {
    Thread* owner;
    int depth;
};

std::unordered_map<void const*, Held> held;
std::vector<std::pair<char const*, char const*>> leftAlone;

Scheduler& scheduler() {
    return Scheduler::instance();
}

bool isRecursive(pthread_mutex_t const* mutex) {
    constexpr int KIND = 3; // without the flags of robust mutexes and of priorities
    return (mutex->__data.__kind & KIND) == PTHREAD_MUTEX_RECURSIVE_NP;
}

void pointAt(void const* object) {
    auto const* const address = static_cast<char const*>(object);
    bool const quiet = std::any_of(leftAlone.begin(), leftAlone.end(), [&](auto const& range) {
        return !std::less<>()(address, range.first) && std::less<>()(address, range.second);
    });
    if (!quiet) {
        scheduler().point();
    }
}

bool take(pthread_mutex_t const* mutex) {
    auto& self = scheduler().current();
    auto const [entry, isFree] = held.try_emplace(mutex, Held{&self, 0});
    if (!isFree && (entry->second.owner != &self || !isRecursive(mutex))) {
        return false;
    }
    ++entry->second.depth;
    return true;
}

void takeWaiting(pthread_mutex_t const* mutex) {
    while (!take(mutex)) {
        if (held.at(mutex).owner == &scheduler().current()) {
            scheduler().fail("locks a plain mutex that it has locked");
        }
        scheduler().block(State::ON_MUTEX, mutex);
    }
}

void give(pthread_mutex_t const* mutex) {
    auto const entry = held.find(mutex);
    if (entry == held.end() || entry->second.owner != &scheduler().current()) {
        scheduler().fail("unlocks a mutex that it has not locked");
    }
    if (--entry->second.depth != 0) {
        return;
    }
    held.erase(entry);
    scheduler().wake(State::ON_MUTEX, mutex, true);
}

} // namespace

void lock(pthread_mutex_t const* mutex) {
    support::UncountedAllocations const ours;
    pointAt(mutex);
    takeWaiting(mutex);
}

bool tryLock(pthread_mutex_t const* mutex) {
    support::UncountedAllocations const ours;
    pointAt(mutex);
    return take(mutex);
}

void unlock(pthread_mutex_t const* mutex) {
    support::UncountedAllocations const ours;
    give(mutex);
    pointAt(mutex);
}

bool wait(pthread_cond_t const* condition, pthread_mutex_t const* mutex, Nanoseconds deadline) {
    support::UncountedAllocations const ours;
    give(mutex);
    bool const woken = scheduler().block(State::ON_CONDITION, condition, deadline);
    takeWaiting(mutex);
    return woken;
}

void notify(pthread_cond_t const* condition, bool all) {
    support::UncountedAllocations const ours;
    scheduler().wake(State::ON_CONDITION, condition, all);
    pointAt(condition);
}

void destroy(pthread_cond_t const* condition) {
    if (scheduler().isWaitedFor(State::ON_CONDITION, condition)) {
        scheduler().fail("destroys a condition that somebody waits on");
    }
}

void leaveAlone(void const* begin, std::size_t size) {
    auto const* const first = static_cast<char const*>(begin);
    leftAlone.emplace_back(first, first + size);
}

int holderOf(void const* mutex) {
    auto const entry = held.find(mutex);
    return entry == held.end() ? -1 : entry->second.owner->number;
}

} // namespace interleavings
