// Replaces the functions of the C library with which threads wait for each other, or for time. The
// dynamic linker prefers the symbols of a program to those of shared libraries, also for calls
// between the libraries. Before a run, and in the process that starts the runs, these functions
// call the C library's.

#include "interleavings/scenario.hpp"
#include "interleavings/scheduler.hpp"
#include "support/allocations.hpp"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace interleavings {

namespace {

constexpr Nanoseconds SECOND = 1'000'000'000;
/// 2020-01-01, at the beginning of every run.
constexpr Nanoseconds REAL_TIME = 1'577'836'800 * SECOND;
constexpr Nanoseconds YIELD_TIME = SECOND / 200;

Scheduler& scheduler() {
    return Scheduler::instance();
}

bool isRunning() {
    return Scheduler::started();
}

/// The C library's function. Of the condition functions, dlsym would find an old version.
template <class Function>
Function* real(char const* name, Function* /*like*/, char const* version = nullptr) {
    return reinterpret_cast<Function*>(version != nullptr ? dlvsym(RTLD_NEXT, name, version)
                                                          : dlsym(RTLD_NEXT, name));
}

#define ZYM_REAL(name) real(#name, &name)
#if defined(__x86_64__)
#define ZYM_REAL_CONDITION(name) real(#name, &name, "GLIBC_2.3.2")
#else
#define ZYM_REAL_CONDITION(name) real(#name, &name)
#endif
#define ZYM_UNLESS_RUNNING(call)                                                                   \
    if (!isRunning())                                                                              \
    return call

/// As glibc notes it.
bool isHeldByThisThread(pthread_mutex_t const* mutex) {
    return mutex->__data.__owner == gettid();
}

void lock(pthread_mutex_t* mutex) {
    while (pthread_mutex_trylock(mutex) != 0) {
        if (isHeldByThisThread(mutex)) {
            scheduler().fail("locks a plain mutex that it holds");
        }
        scheduler().block("waits for a mutex", mutex);
    }
}

void unlock(pthread_mutex_t* mutex) {
    static auto* const unlockMutex = ZYM_REAL(pthread_mutex_unlock);
    if (!isHeldByThisThread(mutex)) {
        scheduler().fail("unlocks a mutex that it does not hold");
    }
    unlockMutex(mutex);
    scheduler().wake(mutex, true);
}

/// @return 0 or ETIMEDOUT
int wait(pthread_cond_t const* condition, pthread_mutex_t* mutex, Nanoseconds deadline) {
    support::UncountedAllocations const uncounted;
    unlock(mutex);
    bool const woken = scheduler().block("waits on a condition", condition, deadline);
    lock(mutex);
    return woken ? 0 : ETIMEDOUT;
}

int notify(pthread_cond_t const* condition, bool all) {
    support::UncountedAllocations const uncounted;
    scheduler().wake(condition, all);
    scheduler().maySwitchAt(condition);
    return 0;
}

bool isRealTime(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool isVirtual(clockid_t clock) {
    return clock != CLOCK_PROCESS_CPUTIME_ID && clock != CLOCK_THREAD_CPUTIME_ID;
}

/// On the scheduler's clock.
Nanoseconds deadlineOf(clockid_t clock, timespec const& time) {
    return time.tv_sec * SECOND + time.tv_nsec - (isRealTime(clock) ? REAL_TIME : 0);
}

struct Start {
    void* (*routine)(void*);
    void* argument;
    Thread* thread;
    bool memoryMayFail; ///< as on the thread that creates this one
};

void* runThread(void* argument) {
    std::unique_ptr<Start> const start(static_cast<Start*>(argument));
    Scheduler::waitForTurn(*start->thread);
    MemoryMayFail::onThisThread = start->memoryMayFail;
    void* const result = start->routine(start->argument);
    MemoryMayFail::onThisThread = false;
    scheduler().end();
    return result;
}

} // namespace

} // namespace interleavings

using namespace interleavings;

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    ZYM_UNLESS_RUNNING(ZYM_REAL(pthread_mutex_lock)(mutex));
    support::UncountedAllocations const uncounted;
    scheduler().maySwitchAt(mutex);
    lock(mutex);
    return 0;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    ZYM_UNLESS_RUNNING(ZYM_REAL(pthread_mutex_unlock)(mutex));
    support::UncountedAllocations const uncounted;
    unlock(mutex);
    scheduler().maySwitchAt(mutex);
    return 0;
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    ZYM_UNLESS_RUNNING(ZYM_REAL_CONDITION(pthread_cond_wait)(condition, mutex));
    return wait(condition, mutex, NEVER);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           timespec const* deadline) {
    ZYM_UNLESS_RUNNING(ZYM_REAL(pthread_cond_clockwait)(condition, mutex, clock, deadline));
    return wait(condition, mutex, deadlineOf(clock, *deadline));
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    ZYM_UNLESS_RUNNING(ZYM_REAL_CONDITION(pthread_cond_signal)(condition));
    return notify(condition, false);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    ZYM_UNLESS_RUNNING(ZYM_REAL_CONDITION(pthread_cond_broadcast)(condition));
    return notify(condition, true);
}

int pthread_cond_destroy(pthread_cond_t* condition) noexcept {
    ZYM_UNLESS_RUNNING(ZYM_REAL_CONDITION(pthread_cond_destroy)(condition));
    if (scheduler().isWaitedFor(condition)) {
        scheduler().fail("destroys a condition on which a thread waits");
    }
    return 0;
}

int pthread_create(pthread_t* id, pthread_attr_t const* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
    auto* const create = ZYM_REAL(pthread_create);
    if (!isRunning()) {
        return create(id, attributes, routine, argument);
    }
    if (scheduler().refuses()) {
        return EAGAIN;
    }
    auto& thread = scheduler().add();
    support::UncountedAllocations const uncounted;
    auto start =
        std::make_unique<Start>(Start{routine, argument, &thread, MemoryMayFail::onThisThread});
    int const result = create(id, attributes, &runThread, start.get());
    if (result != 0) {
        scheduler().fail("the machine cannot create a thread");
    }
    static_cast<void>(start.release());
    thread.id = *id;
    scheduler().maySwitch();
    return result;
}

int pthread_join(pthread_t id, void** result) {
    if (isRunning()) {
        scheduler().maySwitch();
        auto* const thread = scheduler().find(id);
        while (thread != nullptr && thread->state != State::ENDED) {
            scheduler().block("waits to join a thread", thread);
        }
    }
    return ZYM_REAL(pthread_join)(id, result);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (!isRunning() || !isVirtual(clock)) {
        return ZYM_REAL(clock_gettime)(clock, time);
    }
    auto const now = scheduler().now() + (isRealTime(clock) ? REAL_TIME : 0);
    time->tv_sec = static_cast<time_t>(now / SECOND);
    time->tv_nsec = static_cast<long>(now % SECOND);
    return 0;
}

int sched_yield() noexcept {
    ZYM_UNLESS_RUNNING(ZYM_REAL(sched_yield)());
    scheduler().block("yields", nullptr, scheduler().now() + YIELD_TIME); // all others run first
    return 0;
}

} // extern "C"
