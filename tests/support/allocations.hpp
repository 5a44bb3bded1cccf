#pragma once

#include <cstddef>
#include <functional>
#include <new>

namespace support {

/// How often this thread has asked for memory, in programs that have `allocations.cpp` among
/// their sources; in others it stays 0.
inline thread_local std::size_t allocations = 0;
inline thread_local bool countingAllocations = true;
/// When `allocations` gets there, there is no memory.
inline thread_local std::size_t failingAllocation = 0;
/// Where it is set, it is asked at each allocation that counts: whether there is no memory.
inline bool (*refusesMemory)() = nullptr;

/// What happens then instead, unless null.
inline thread_local std::function<void()> const* interruption = nullptr;

/// The allocations of this thread since this was made.
class AllocationCount {
public:
    std::size_t value() const { return allocations - before_; }

private:
    std::size_t before_ = allocations;
};

/// Takes what a stand-in needs for itself out of the count.
class UncountedAllocations {
public:
    UncountedAllocations() { countingAllocations = false; }
    ~UncountedAllocations() { countingAllocations = before_; }
    UncountedAllocations(UncountedAllocations const&) = delete;
    UncountedAllocations& operator=(UncountedAllocations const&) = delete;

private:
    bool before_ = countingAllocations; // initialised before the body changes it
};

/// Lets one allocation of this thread fail: the next one for 1, and so on.
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

/// Does something in the middle of one allocation of this thread, as another thread might: there
/// are allocations between most statements.
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
/// none is left to fail. @return how often it failed
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
