#pragma once

#include "interleavings/scheduler.hpp"

#include <cstddef>

#include <pthread.h>

// What threads meet at, as the scheduler sees it: the real ones are not touched in a run.
namespace interleavings {

void lock(pthread_mutex_t const* mutex);
bool tryLock(pthread_mutex_t const* mutex);
void unlock(pthread_mutex_t const* mutex);

/// @return false when the deadline came first
bool wait(pthread_cond_t const* condition, pthread_mutex_t const* mutex, Nanoseconds deadline);
void notify(pthread_cond_t const* condition, bool all);
void destroy(pthread_cond_t const* condition);

/// The mutexes in there belong to a double: no thread is stopped at them unless it has to wait.
void leaveAlone(void const* begin, std::size_t size);

/// The number of the thread that has it; -1: none.
int holderOf(void const* mutex);

} // namespace interleavings
