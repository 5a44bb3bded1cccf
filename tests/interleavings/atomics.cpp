// Lets the explorer choose at operations on atomics too. Code compiled for ThreadSanitizer calls
// these functions; the program is not linked with its runtime.

#include "interleavings/scheduler.hpp"

#include <atomic>
#include <cstdint>

namespace {

/// Only the reference counts of shared pointers use this order; they need no choice.
constexpr int ORDER_OF_REFERENCE_COUNTS = __ATOMIC_ACQ_REL;

void maySwitch(int order = __ATOMIC_SEQ_CST) {
    auto& scheduler = interleavings::Scheduler::instance();
    if (scheduler.started() && order != ORDER_OF_REFERENCE_COUNTS) {
        scheduler.maySwitch();
    }
}

} // namespace

#define ZYM_FETCH(bits, type, operation)                                                           \
    type __tsan_atomic##bits##_fetch_##operation(type volatile* place, type value, int order) {    \
        maySwitch(order);                                                                          \
        return __atomic_fetch_##operation(place, value, __ATOMIC_SEQ_CST);                         \
    }

#define ZYM_ATOMIC(bits, type)                                                                     \
    type __tsan_atomic##bits##_load(type const volatile* place, int) {                             \
        maySwitch();                                                                               \
        return __atomic_load_n(place, __ATOMIC_SEQ_CST);                                           \
    }                                                                                              \
    void __tsan_atomic##bits##_store(type volatile* place, type value, int) {                      \
        maySwitch();                                                                               \
        __atomic_store_n(place, value, __ATOMIC_SEQ_CST);                                          \
    }                                                                                              \
    type __tsan_atomic##bits##_exchange(type volatile* place, type value, int) {                   \
        maySwitch();                                                                               \
        return __atomic_exchange_n(place, value, __ATOMIC_SEQ_CST);                                \
    }                                                                                              \
    int __tsan_atomic##bits##_compare_exchange_strong(type volatile* place, type* expected,        \
                                                      type value, int, int) {                      \
        maySwitch();                                                                               \
        return __atomic_compare_exchange_n(place, expected, value, false, __ATOMIC_SEQ_CST,        \
                                           __ATOMIC_SEQ_CST);                                      \
    }                                                                                              \
    int __tsan_atomic##bits##_compare_exchange_weak(type volatile* place, type* expected,          \
                                                    type value, int, int) {                        \
        return __tsan_atomic##bits##_compare_exchange_strong(place, expected, value, 0, 0);        \
    }                                                                                              \
    ZYM_FETCH(bits, type, add)                                                                     \
    ZYM_FETCH(bits, type, sub)                                                                     \
    ZYM_FETCH(bits, type, and)                                                                     \
    ZYM_FETCH(bits, type, or)                                                                      \
    ZYM_FETCH(bits, type, xor)

#define ZYM_ACCESS(size)                                                                           \
    void __tsan_read##size(void*) {}                                                               \
    void __tsan_write##size(void*) {}                                                              \
    void __tsan_unaligned_read##size(void*) {}                                                     \
    void __tsan_unaligned_write##size(void*) {}                                                    \
    void __tsan_volatile_read##size(void*) {}                                                      \
    void __tsan_volatile_write##size(void*) {}

extern "C" {

ZYM_ATOMIC(8, std::uint8_t)
ZYM_ATOMIC(16, std::uint16_t)
ZYM_ATOMIC(32, std::uint32_t)
ZYM_ATOMIC(64, std::uint64_t)

ZYM_ACCESS(1)
ZYM_ACCESS(2)
ZYM_ACCESS(4)
ZYM_ACCESS(8)
ZYM_ACCESS(16)

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}
void __tsan_vptr_read(void**) {}
void __tsan_vptr_update(void**, void*) {}
void __tsan_read_range(void*, unsigned long) {}
void __tsan_write_range(void*, unsigned long) {}
void __tsan_atomic_thread_fence(int) {}
void __tsan_atomic_signal_fence(int) {}

} // extern "C"
