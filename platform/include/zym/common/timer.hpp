#pragma once

#include <zym/common/export.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

namespace zym::common {

/// Calls back after a period, once or again and again, on a thread of its own.
///
/// A timer is idle when made and starts its thread with the first `restart`. It is armed like
/// this:
/// ```
/// std::unique_lock<std::mutex> lock(timer.mutex());
/// timer.setPeriod(std::chrono::seconds(30), lock);
/// timer.once = false;
/// timer.restart(lock);
/// ```
///
/// ### The callback
/// Runs on the timer's thread with no lock held: it may call every operation, and even destroy
/// the timer. What it throws is dropped.
///
/// The thread is named `zym-timer` and has a stack of 512 KiB. All signals are blocked on it but
/// those that a fault raises there (SIGSEGV and the like): the program's handlers run on other
/// threads, and a process started by the callback inherits that.
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

    /// As `terminate`. In the timer's own callback it does not wait: nothing of the timer is
    /// touched any more once the callback returns.
    ~Timer();

    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;

    /// The timer's own lock. Hold it around `setPeriod`, `once` and `restart`; nothing else is
    /// ever called back under it.
    std::mutex& mutex() noexcept;

    /// True to expire once per `restart`, false to go on at each period until `stop`. Written
    /// under the timer's lock, read under it at each expiry.
    bool& once;

    /// Stores the period and nothing else: an armed timer keeps its next expiry.
    /// @param period 0 (and anything below) makes one prompt expiry per `restart`, whatever
    ///        `once` says
    /// @param lock holds the timer's own lock
    void setPeriod(std::chrono::milliseconds period, std::unique_lock<std::mutex>& lock) noexcept;

    /// Arms the timer for now plus the period, in place of any expiry still to come. Periods
    /// that pass unnoticed, because a callback took long, are skipped and not made up. Does
    /// nothing after `terminate`.
    /// @param lock holds the timer's own lock
    /// @throws std::system_error when there is no thread to be had; the timer stays idle
    /// @throws std::bad_alloc likewise
    void restart(std::unique_lock<std::mutex>& lock);

    /// Disarms the timer. Never waits: a callback already decided still runs.
    void stop();

    /// Disarms the timer for good and waits for a callback under way to return, except in the
    /// timer's own callback. Do not hold a lock that the callback takes.
    void terminate();
};

} // namespace zym::common
