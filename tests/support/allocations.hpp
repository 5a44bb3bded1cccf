#pragma once

#include <cstddef>

namespace support {

/// How often this thread has asked for memory, in programs that have `allocations.cpp` among
/// their sources; in others it stays 0.
inline thread_local std::size_t allocations = 0;
inline thread_local bool countingAllocations = true;
/// When `allocations` gets there, there is no memory.
inline thread_local std::size_t failingAllocation = 0;
/// Where it is set, it is asked at each allocation that counts: whether there is no memory.
inline bool (*refusesMemory)() = nullptr;

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

} // namespace support
