#pragma once

#include <zym/common/export.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

namespace zym::common {

/// Calls back after a period, once or repeatedly, on its own thread.
///
/// A new timer is idle; the first `restart` starts its thread. To arm a timer:
/// ```
/// std::unique_lock<std::mutex> lock(timer.mutex());
/// timer.setPeriod(std::chrono::seconds(30), lock);
/// timer.once = false;
/// timer.restart(lock);
/// ```
///
/// ### The callback
/// Runs on the timer's thread with no lock held: it may call every operation, and may destroy the
/// timer. Its exceptions are dropped.
///
/// The thread is named `zym-timer` and has a stack of 512 KiB. It blocks all signals except those
/// that a fault raises (such as SIGSEGV): the program's handlers run on other threads. A process
/// that the callback starts inherits this mask.
///
/// ### Threads
/// Every operation may be called from any thread; `stop`, `terminate` and the destructor take
/// the timer's own lock, so call them without it. No other call may be under way when the
/// timer is destroyed.
class ZYM_COMMON_EXPORT Timer {
    struct Engine;
    std::shared_ptr<Engine> engine_; // first: `once` lives in it

public:
    /// Makes an idle timer.
    /// @param callback must not be empty
    /// @param period see `setPeriod`
    /// @param expireOnce what `once` is at first
    Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce);

    /// As `terminate`. In the timer's own callback it does not wait: the timer is not used after
    /// the callback has returned.
    ~Timer();

    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;

    /// The timer's own lock. Hold it around `setPeriod`, `once` and `restart`; the callback runs
    /// without it.
    std::mutex& mutex() noexcept;

    /// True to expire once per `restart`, false to expire after each period until `stop`. Write it
    /// under the timer's lock; each expiry reads it under that lock.
    bool& once;

    /// Stores the period only: an armed timer keeps its next expiry.
    /// @param period 0 or less: one expiry at once per `restart`, whatever `once` says
    /// @param lock holds the timer's own lock
    void setPeriod(std::chrono::milliseconds period, std::unique_lock<std::mutex>& lock) noexcept;

    /// Arms the timer for now plus the period, in place of any expiry still to come. Periods that
    /// pass during a long callback are skipped. Does nothing after `terminate`.
    /// @param lock holds the timer's own lock
    /// @throws std::system_error when the system has no thread left; the timer stays idle
    /// @throws std::bad_alloc likewise
    void restart(std::unique_lock<std::mutex>& lock);

    /// Disarms the timer. Never waits: a callback that is about to run still runs.
    void stop();

    /// Disarms the timer for ever and waits for a callback under way to return, except in the
    /// timer's own callback. Do not hold a lock that the callback takes.
    void terminate();
};

} // namespace zym::common
