#pragma once

#include <mutex>

// What Clang's thread-safety analysis (-Wthread-safety) has to know: which mutex guards a member,
// and which one a function needs. Other compilers ignore it.
#ifdef __clang__
#define ZYM_MQTT_ANALYSIS(attribute) __attribute__((attribute))
#else
#define ZYM_MQTT_ANALYSIS(attribute)
#endif
/// This member is read and written with the mutex held.
#define ZYM_MQTT_GUARDED_BY(mutex) ZYM_MQTT_ANALYSIS(guarded_by(mutex))
/// This function is called with the mutex held, and returns with it held.
#define ZYM_MQTT_REQUIRES(mutex) ZYM_MQTT_ANALYSIS(requires_capability(mutex))

namespace mqtt {

/// A `std::mutex` that the analysis knows. Lock it with a `MutexLock`.
class ZYM_MQTT_ANALYSIS(capability("mutex")) Mutex : public std::mutex {};

/// Holds a `Mutex`; a `std::condition_variable` can wait with it.
class ZYM_MQTT_ANALYSIS(scoped_lockable) MutexLock : public std::unique_lock<std::mutex> {
public:
    explicit MutexLock(Mutex& mutex) ZYM_MQTT_ANALYSIS(acquire_capability(mutex))
        : std::unique_lock<std::mutex>(mutex) {}
    ~MutexLock() ZYM_MQTT_ANALYSIS(release_capability()) = default;
    MutexLock(MutexLock const&) = delete;
    MutexLock& operator=(MutexLock const&) = delete;

    void lock() ZYM_MQTT_ANALYSIS(acquire_capability()) { std::unique_lock<std::mutex>::lock(); }
    void unlock() ZYM_MQTT_ANALYSIS(release_capability()) {
        std::unique_lock<std::mutex>::unlock();
    }
};

} // namespace mqtt
