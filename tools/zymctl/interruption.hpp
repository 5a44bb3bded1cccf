#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

using Clock = std::chrono::steady_clock;

/// Ctrl-C and SIGTERM, and waiting for other threads until one of them comes.
///
/// Make it before any other thread: threads inherit that the signals are blocked. Until `hold` is
/// called a signal ends the process at once; after that the first one ends all waits.
class Interruption {
public:
    Interruption();
    ~Interruption();
    Interruption(Interruption const&) = delete;
    Interruption& operator=(Interruption const&) = delete;

    /// From here on the command ends itself when it is interrupted.
    void hold();
    bool requested();
    /// As if a signal had come.
    void request();

    /// Changes what others wait for.
    template <class Change>
    void change(Change const& makeChange) {
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            makeChange();
        }
        changed_.notify_all();
    }

    /// Waits until the condition holds, at most until the deadline, and not when interrupted.
    /// @return whether the condition holds. It is called with the lock of `change` held.
    template <class Condition>
    bool wait(Clock::time_point deadline, Condition const& condition) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!condition() && !requested_ && Clock::now() < deadline) {
            // A far deadline is too large for the system's clock where that has 32 bits.
            changed_.wait_until(lock, std::min(deadline, Clock::now() + std::chrono::hours(1)));
        }
        return condition();
    }
    /// Waits for the time or an interruption.
    void pause(Clock::time_point deadline) {
        wait(deadline, [] { return false; });
    }

private:
    void receiveSignals();

    std::mutex mutex_;
    std::condition_variable changed_;
    bool held_ = false;
    bool requested_ = false;
    bool ending_ = false;
    std::thread receiver_;
};

/// A value that one thread waits for and another one gives. Only the first counts.
template <class Value>
class Awaited {
public:
    explicit Awaited(Interruption& interruption) : interruption_(interruption) {}

    void give(Value const& value) {
        interruption_.change([&] {
            if (!value_) {
                value_ = value;
            }
        });
    }
    /// @return empty: not in time, or interrupted
    std::optional<Value> const& wait(Clock::time_point deadline) {
        interruption_.wait(deadline, [this] { return value_.has_value(); });
        return value_;
    }

private:
    Interruption& interruption_;
    std::optional<Value> value_;
};
