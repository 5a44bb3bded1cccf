// The program's own operators for memory, which count. In the place of the standard ones in the
// whole program, the shared libraries included.

#include "support/allocations.hpp"

#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) {
    if (support::countingAllocations && ++support::allocations == support::failingAllocation) {
        support::interrupt();
    }
    void* const result = std::malloc(size == 0 ? 1 : size);
    if (result == nullptr) {
        throw std::bad_alloc();
    }
    return result;
}

void* allocateUnlessRefused(std::size_t size) {
    if (support::countingAllocations && support::refusesMemory != nullptr
        && support::refusesMemory()) {
        throw std::bad_alloc();
    }
    return allocate(size);
}

} // namespace

void* operator new(std::size_t size) {
    return allocateUnlessRefused(size);
}

void* operator new[](std::size_t size) {
    return allocateUnlessRefused(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
