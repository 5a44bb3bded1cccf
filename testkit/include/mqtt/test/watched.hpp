#pragma once

#include "mqtt/test/eventually.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace mqtt::test {

/// A value that several threads change and wait for.
template <typename T>
class Watched {
public:
    Watched() = default;
    explicit Watched(T value) : value_(std::move(value)) {}

    /// Runs `change(value)` and wakes all threads that wait.
    template <typename Change>
    auto change(Change&& change) {
        std::lock_guard<std::mutex> lock(mutex_);
        // With the lock held: a thread that waited may destroy this object once it has the lock.
        Waker const waker{changed_};
        return std::forward<Change>(change)(value_);
    }

    /// Runs `look(value)`.
    template <typename Look>
    auto read(Look&& look) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::forward<Look>(look)(value_);
    }

    T copy() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return value_;
    }

    /// Waits until `condition(value)` holds.
    /// @return whether it came to hold
    template <typename Condition>
    bool waitFor(Condition const& condition, std::chrono::milliseconds deadline = DEADLINE) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, deadline, [&] { return condition(value_); });
    }

private:
    struct Waker {
        std::condition_variable& changed;
        ~Waker() { changed.notify_all(); }
    };

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    T value_{};
};

// A flag that is set once and waited for: `flag.waitFor(isSet)`.

inline bool isSet(bool value) {
    return value;
}

/// A template, so that a test may have a `set` of its own.
template <class T>
void set(Watched<T>& flag) {
    flag.change([](T& value) { value = true; });
}

} // namespace mqtt::test
