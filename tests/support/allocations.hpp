#pragma once

#include <cstddef>
#include <functional>
#include <new>

namespace support {

/// The number of allocations of this thread, in programs that have `allocations.cpp` among their
/// sources; in others it stays 0.
inline thread_local std::size_t allocations = 0;
inline thread_local bool countingAllocations = true;
/// The allocation with this number fails; 0: none.
inline thread_local std::size_t failingAllocation = 0;
/// Called in place of the failure, unless null.
inline thread_local std::function<void()> const* interruption = nullptr;
/// Unless null, asked at each counted allocation of any thread whether it fails.
inline bool (*refusesMemory)() = nullptr;

/// The allocations of this thread since this was made.
class AllocationCount {
public:
    std::size_t value() const { return allocations - before_; }

private:
    std::size_t before_ = allocations;
};

/// Leaves the allocations of this scope out of the count: those of test code.
class UncountedAllocations {
public:
    UncountedAllocations() { countingAllocations = false; }
    ~UncountedAllocations() { countingAllocations = before_; }
    UncountedAllocations(UncountedAllocations const&) = delete;
    UncountedAllocations& operator=(UncountedAllocations const&) = delete;

private:
    bool before_ = countingAllocations; // initialised before the body changes it
};

/// Lets one allocation of this thread fail: 1 is the next one.
class FailingAllocation {
public:
    explicit FailingAllocation(std::size_t which) { failingAllocation = allocations + which; }
    ~FailingAllocation() { failingAllocation = 0; }
    FailingAllocation(FailingAllocation const&) = delete;
    FailingAllocation& operator=(FailingAllocation const&) = delete;

    bool happened() const { return allocations >= failingAllocation; }
};

inline void interrupt() {
    if (interruption == nullptr) {
        throw std::bad_alloc();
    }
    UncountedAllocations const uncounted;
    (*interruption)();
}

/// Calls a function within one allocation of this thread, as if another thread ran at that point:
/// there are allocations between most statements.
class InterruptedAllocation {
public:
    InterruptedAllocation(std::size_t which, std::function<void()> call)
        : call_(std::move(call)), failing_(which) {
        interruption = &call_;
    }
    ~InterruptedAllocation() { interruption = nullptr; }
    InterruptedAllocation(InterruptedAllocation const&) = delete;
    InterruptedAllocation& operator=(InterruptedAllocation const&) = delete;

    bool happened() const { return failing_.happened(); }

private:
    std::function<void()> const call_;
    FailingAllocation const failing_;
};

/// Calls the action with its first allocation failing, then with its second one, and so on, until
/// it succeeds; after each failure calls `check(number)`. @return the number of failures
template <class Action, class Check>
unsigned failEachAllocation(Action const& action, Check const& check) {
    for (unsigned which = 1;; ++which) {
        try {
            FailingAllocation const failing(which);
            action();
            return which - 1;
        } catch (std::bad_alloc const&) {
            check(which);
        }
    }
}

} // namespace support
