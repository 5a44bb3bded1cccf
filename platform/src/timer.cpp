#include <zym/common/timer.hpp>

#include "thread.hpp"

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <utility>

namespace zym::common {

namespace {

using Clock = std::chrono::steady_clock;

// Standard libraries pass a deadline to the system as a time_t. Where that has 32 bits, a far
// deadline overflows and the wait returns at once. So no single wait lasts longer than this.
constexpr std::chrono::hours MAX_WAIT{1};

bool isOneShot(std::chrono::milliseconds period) {
    return period <= std::chrono::milliseconds::zero();
}

Clock::time_point deadlineAfter(Clock::time_point now, std::chrono::milliseconds period) {
    if (isOneShot(period)) {
        return now;
    }
    auto const room = std::chrono::floor<std::chrono::milliseconds>(Clock::time_point::max() - now);
    return period < room ? now + period : Clock::time_point::max();
}

} // namespace

/// The state that the timer shares with its thread. A callback may destroy the timer: the thread
/// then finds `terminated` set and ends.
struct Timer::Engine {
    Engine(std::function<void()> call, std::chrono::milliseconds every, bool onlyOnce)
        : callback(std::move(call)), period(every), once(onlyOnce) {}

    void run();
    void waitForDeadline(std::unique_lock<std::mutex>& lock, Clock::time_point now);
    void moveDeadline(Clock::time_point now);
    void expire(std::unique_lock<std::mutex>& lock);

    std::function<void()> const callback;
    std::mutex mutex; ///< guards all below
    std::condition_variable changed;
    std::chrono::milliseconds period;
    bool once;
    bool armed = false;
    bool terminated = false;
    std::thread::id worker;
    Clock::time_point deadline;
    Thread thread; ///< written under `mutex`; after `terminate` under `joining`

    std::mutex joining; ///< several calls of `terminate` may wait; one of them joins the thread
};

void Timer::Engine::run() {
    std::unique_lock<std::mutex> lock(mutex);
    worker = std::this_thread::get_id();
    while (!terminated) {
        auto const now = Clock::now();
        if (!armed) {
            changed.wait(lock);
        } else if (now < deadline) {
            waitForDeadline(lock, now);
        } else {
            moveDeadline(now);
            expire(lock);
        }
    }
}

void Timer::Engine::waitForDeadline(std::unique_lock<std::mutex>& lock, Clock::time_point now) {
    // A copy: `deadline` may change while the lock is released in the wait.
    Clock::time_point const end = std::min(deadline, now + MAX_WAIT);
    changed.wait_until(lock, end);
}

// Called before the callback, so that a `restart` in the callback keeps its effect.
void Timer::Engine::moveDeadline(Clock::time_point now) {
    if (once || isOneShot(period)) {
        armed = false;
        return;
    }
    auto const missed = std::chrono::floor<std::chrono::milliseconds>(now - deadline) / period;
    deadline = deadlineAfter(deadline + missed * period, period);
}

void Timer::Engine::expire(std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    try {
        callback();
    } catch (...) { // NOLINT(bugprone-empty-catch): there is no caller to report to
    }
    lock.lock();
}

Timer::Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce)
    : engine_(std::make_shared<Engine>(std::move(callback), period, expireOnce)),
      once(engine_->once) {}

Timer::~Timer() {
    terminate();
    if (engine_->thread.isJoinable()) {
        engine_->thread.detach(); // this is the timer's own thread
    }
}

std::mutex& Timer::mutex() noexcept {
    return engine_->mutex;
}

void Timer::setPeriod(std::chrono::milliseconds period,
                      std::unique_lock<std::mutex>& /*lock*/) noexcept {
    engine_->period = period;
}

void Timer::restart(std::unique_lock<std::mutex>& /*lock*/) {
    if (engine_->terminated) {
        return;
    }
    if (!engine_->thread.isJoinable()) {
        engine_->thread.start("zym-timer", [engine = engine_] { engine->run(); });
    }
    engine_->deadline = deadlineAfter(Clock::now(), engine_->period);
    engine_->armed = true;
    engine_->changed.notify_one();
}

void Timer::stop() {
    std::lock_guard<std::mutex> const lock(engine_->mutex);
    engine_->armed = false;
}

void Timer::terminate() {
    {
        std::lock_guard<std::mutex> const lock(engine_->mutex);
        engine_->armed = false;
        engine_->terminated = true;
        if (engine_->worker == std::this_thread::get_id()) {
            return;
        }
    }
    engine_->changed.notify_one();
    std::lock_guard<std::mutex> const joining(engine_->joining);
    if (engine_->thread.isJoinable()) {
        engine_->thread.join();
    }
}

} // namespace zym::common
