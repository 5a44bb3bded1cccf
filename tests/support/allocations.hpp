#pragma once

#include <cstddef>
#include <functional>
#include <new>

namespace support {

/// The number of allocations of this thread, in programs that have `allocations.cpp` among their
/// sources; in others it stays 0.
inline thread_local std::size_t allocations = 0;
inline thread_local bool countingAllocations = true;
/// Within the allocation with this number `interruption` is called; 0: none.
inline thread_local std::size_t interruptedAllocation = 0;
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
struct UncountedAllocations {
    UncountedAllocations() { countingAllocations = false; }
    ~UncountedAllocations() { countingAllocations = before; }
    UncountedAllocations(UncountedAllocations const&) = delete;
    UncountedAllocations& operator=(UncountedAllocations const&) = delete;

    bool const before = countingAllocations; // initialised before the body changes it
};

/// Calls a function within one allocation of this thread, 1 being the next one, as if another
/// thread ran at that point: there are allocations between most statements.
class InterruptedAllocation {
public:
    InterruptedAllocation(std::size_t which, std::function<void()> call) : call_(std::move(call)) {
        interruption = &call_;
        interruptedAllocation = allocations + which;
    }
    ~InterruptedAllocation() { interruptedAllocation = 0; }
    InterruptedAllocation(InterruptedAllocation const&) = delete;
    InterruptedAllocation& operator=(InterruptedAllocation const&) = delete;

    bool happened() const { return allocations >= interruptedAllocation; }

private:
    std::function<void()> const call_;
};

/// Lets one allocation of this thread fail: 1 is the next one.
struct FailingAllocation : InterruptedAllocation {
    explicit FailingAllocation(std::size_t which)
        : InterruptedAllocation(which, [] { throw std::bad_alloc(); }) {}
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
