// Operators for memory that count. They replace the standard ones in the whole program, the shared
// libraries included. Those for arrays call these.

#include "support/allocations.hpp"

#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) {
    using namespace support;
    if (countingAllocations) {
        if (refusesMemory != nullptr && refusesMemory()) {
            throw std::bad_alloc();
        }
        if (++allocations == interruptedAllocation) {
            UncountedAllocations const uncounted;
            (*interruption)();
        }
    }
    void* const result = std::malloc(size == 0 ? 1 : size);
    if (result == nullptr) {
        throw std::bad_alloc();
    }
    return result;
}

} // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
