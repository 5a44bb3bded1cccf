// The program's own operators for memory: one allocation of a run may fail.

#include "interleavings/scenario.hpp"
#include "support/allocations.hpp"

#include <cstdlib>
#include <new>

namespace {

using interleavings::Scene;
using interleavings::Scheduler;

bool isRefused() {
    // Not to a stand-in, and not to the scheduler itself.
    if (!Scene::Shortage::on || !support::countingAllocations)
        return false;
    support::UncountedAllocations const ours;
    return Scheduler::instance().refuses(interleavings::NO_MEMORY);
}

void* allocate(std::size_t size) {
    void* const result = isRefused() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (result == nullptr)
        throw std::bad_alloc();
    return result;
}

} // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}

void* operator new[](std::size_t size) {
    return allocate(size);
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
