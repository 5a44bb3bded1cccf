// What threads meet at, in the place of the C library's: the symbols of a program come before those
// of the shared libraries, also for calls that these make themselves. Before a run, and in the
// process that starts the runs, all of this is what it was.

#include "interleavings/scenario.hpp"
#include "interleavings/scheduler.hpp"
#include "interleavings/synchronisation.hpp"
#include "support/allocations.hpp"

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace {

using interleavings::Nanoseconds;
using interleavings::NEVER;
using interleavings::Scene;
using interleavings::Scheduler;
using interleavings::State;

constexpr Nanoseconds SECOND = 1'000'000'000;
/// The year 2020, in the beginning of every run.
constexpr Nanoseconds REAL_TIME = 1'577'836'800 * SECOND;

Scheduler& scheduler() {
    return Scheduler::instance();
}

bool virtually() {
    return scheduler().started();
}

/// The C library's own. The condition functions come in an old version too, which is the one that
/// dlsym would find.
template <class Function>
Function* real(char const* name, Function* /*like*/, char const* version = nullptr) {
    return reinterpret_cast<Function*>(version != nullptr ? dlvsym(RTLD_NEXT, name, version)
                                                          : dlsym(RTLD_NEXT, name));
}

#define ZYM_UNLESS_VIRTUAL(call)                                                                   \
    if (!virtually())                                                                              \
    return call
#define ZYM_REAL(name) real(#name, &name)
#if defined(__x86_64__)
#define ZYM_REAL_CONDITION(name) real(#name, &name, "GLIBC_2.3.2")
#else
#define ZYM_REAL_CONDITION(name) real(#name, &name)
#endif

bool isRealTime(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool isVirtual(clockid_t clock) {
    return isRealTime(clock) || clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE
           || clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_BOOTTIME;
}

Nanoseconds inNanoseconds(timespec const& time) {
    return time.tv_sec * SECOND + time.tv_nsec;
}

/// On the scheduler's clock.
Nanoseconds deadlineOf(clockid_t clock, timespec const& time) {
    return inNanoseconds(time) - (isRealTime(clock) ? REAL_TIME : 0);
}

void sleepUntil(Nanoseconds deadline) {
    static_cast<void>(scheduler().block(State::ASLEEP, nullptr, deadline));
}

struct Start {
    void* (*routine)(void*);
    void* argument;
    interleavings::Thread* thread;
    bool isShort; ///< of memory, like the one that begins it
};

void* enter(void* start) {
    std::unique_ptr<Start> const mine(static_cast<Start*>(start));
    scheduler().begin(*mine->thread);
    Scene::Shortage::on = mine->isShort;
    void* const result = mine->routine(mine->argument);
    Scene::Shortage::on = false;
    scheduler().end();
    return result;
}

} // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(pthread_mutex_lock)(mutex));
    interleavings::lock(mutex);
    return 0;
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(pthread_mutex_trylock)(mutex));
    return interleavings::tryLock(mutex) ? 0 : EBUSY;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(pthread_mutex_unlock)(mutex));
    interleavings::unlock(mutex);
    return 0;
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL_CONDITION(pthread_cond_wait)(condition, mutex));
    interleavings::wait(condition, mutex, NEVER);
    return 0;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           timespec const* deadline) {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(pthread_cond_clockwait)(condition, mutex, clock, deadline));
    return interleavings::wait(condition, mutex, deadlineOf(clock, *deadline)) ? 0 : ETIMEDOUT;
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           timespec const* deadline) {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL_CONDITION(pthread_cond_timedwait)(condition, mutex, deadline));
    return interleavings::wait(condition, mutex, deadlineOf(CLOCK_REALTIME, *deadline)) ? 0
                                                                                        : ETIMEDOUT;
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL_CONDITION(pthread_cond_signal)(condition));
    interleavings::notify(condition, false);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL_CONDITION(pthread_cond_broadcast)(condition));
    interleavings::notify(condition, true);
    return 0;
}

int pthread_cond_destroy(pthread_cond_t* condition) noexcept {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL_CONDITION(pthread_cond_destroy)(condition));
    interleavings::destroy(condition);
    return 0;
}

int pthread_create(pthread_t* id, pthread_attr_t const* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
    auto* const create = ZYM_REAL(pthread_create);
    if (!virtually()) {
        return create(id, attributes, routine, argument);
    }
    if (scheduler().refuses(interleavings::NO_THREAD)) {
        return EAGAIN;
    }
    auto& thread = scheduler().add();
    support::UncountedAllocations const ours;
    auto start = std::make_unique<Start>(Start{routine, argument, &thread, Scene::Shortage::on});
    int const result = create(id, attributes, &enter, start.get());
    if (result != 0) {
        scheduler().fail("the machine has no thread for the explorer");
    }
    static_cast<void>(start.release());
    thread.id = *id;
    scheduler().point();
    return result;
}

int pthread_join(pthread_t id, void** result) {
    if (virtually()) {
        scheduler().point();
        auto* const thread = scheduler().find(id);
        while (thread != nullptr && thread->state != State::ENDED) {
            scheduler().block(State::ON_THREAD, thread);
        }
        if (thread != nullptr) {
            thread->joined = true;
        }
    }
    return ZYM_REAL(pthread_join)(id, result);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (!virtually() || !isVirtual(clock)) {
        return ZYM_REAL(clock_gettime)(clock, time);
    }
    auto const now = scheduler().now() + (isRealTime(clock) ? REAL_TIME : 0);
    time->tv_sec = static_cast<time_t>(now / SECOND);
    time->tv_nsec = static_cast<long>(now % SECOND);
    return 0;
}

int nanosleep(timespec const* duration, timespec* left) {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(nanosleep)(duration, left));
    sleepUntil(scheduler().now() + inNanoseconds(*duration));
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, timespec const* time, timespec* left) {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(clock_nanosleep)(clock, flags, time, left));
    sleepUntil((flags & TIMER_ABSTIME) != 0 ? deadlineOf(clock, *time)
                                            : scheduler().now() + inNanoseconds(*time));
    return 0;
}

int usleep(useconds_t microseconds) {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(usleep)(microseconds));
    sleepUntil(scheduler().now() + Nanoseconds(microseconds) * 1000);
    return 0;
}

int sched_yield() noexcept {
    ZYM_UNLESS_VIRTUAL(ZYM_REAL(sched_yield)());
    scheduler().yield();
    return 0;
}

/// Looks at once and, when there is nothing, again when the time is over.
int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    auto* const look = ZYM_REAL(poll);
    if (!virtually()) {
        return look(descriptors, count, milliseconds);
    }
    int const found = look(descriptors, count, 0);
    if (found != 0 || milliseconds == 0) {
        return found;
    }
    sleepUntil(milliseconds < 0 ? NEVER
                                : scheduler().now() + Nanoseconds(milliseconds) * 1'000'000);
    return look(descriptors, count, 0);
}

} // extern "C"
