// Lets the explorer choose at operations on atomics too. Code compiled for ThreadSanitizer calls
// these functions; the program is not linked with its runtime. The linker says when the product
// needs another one.

#include "interleavings/scheduler.hpp"

#include <cstdint>

namespace {

void maySwitch() {
    auto& scheduler = interleavings::Scheduler::instance();
    if (scheduler.started()) {
        scheduler.maySwitch();
    }
}

} // namespace

#define ZYM_FETCH(bits, type, operation)                                                           \
    type __tsan_atomic##bits##_fetch_##operation(type volatile* place, type value, int order) {    \
        if (order != __ATOMIC_ACQ_REL) { /* the order of reference counts, which need no choice */ \
            maySwitch();                                                                           \
        }                                                                                          \
        return __atomic_fetch_##operation(place, value, __ATOMIC_SEQ_CST);                         \
    }

#define ZYM_COMPARE_EXCHANGE(bits, type, strength)                                                 \
    int __tsan_atomic##bits##_compare_exchange_##strength(type volatile* place, type* expected,    \
                                                          type value, int, int) {                  \
        maySwitch();                                                                               \
        return __atomic_compare_exchange_n(place, expected, value, false, __ATOMIC_SEQ_CST,        \
                                           __ATOMIC_SEQ_CST);                                      \
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
    ZYM_COMPARE_EXCHANGE(bits, type, strong)                                                       \
    ZYM_COMPARE_EXCHANGE(bits, type, weak)                                                         \
    ZYM_FETCH(bits, type, add)                                                                     \
    ZYM_FETCH(bits, type, sub)

#define ZYM_ACCESS(size)                                                                           \
    void __tsan_read##size(void*) {}                                                               \
    void __tsan_write##size(void*) {}

extern "C" {

ZYM_ATOMIC(8, std::uint8_t)
ZYM_ATOMIC(32, std::uint32_t)
ZYM_ATOMIC(64, std::uint64_t)

ZYM_ACCESS(1)
ZYM_ACCESS(2)
ZYM_ACCESS(4)
ZYM_ACCESS(8)
ZYM_ACCESS(16)
ZYM_ACCESS(_range)

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}
void __tsan_vptr_update(void**, void*) {}

} // extern "C"
