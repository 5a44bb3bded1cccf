#include "support/manual_timer.hpp"

#include <zym/common/timer.hpp>

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace zym::common {

struct Timer::Engine {
    std::mutex mutex;
    std::chrono::milliseconds period;
    bool once;
    manual_timer::Record record; ///< guarded by theMutex
};

} // namespace zym::common

namespace {

/// An engine's type is private to its timer.
struct Known {
    void const* engine;
    manual_timer::Record* record;
    std::function<void()> callback;
};

std::mutex theMutex; // what follows
std::vector<Known> theTimers;
std::function<void()> theRestartHook;
std::function<void()> theStopHook;

template <class Change>
void change(manual_timer::Record& record, Change apply) {
    std::lock_guard<std::mutex> const lock(theMutex);
    apply(record);
}

void call(std::function<void()> const& hook) {
    std::function<void()> copy;
    {
        std::lock_guard<std::mutex> const lock(theMutex);
        copy = hook;
    }
    if (copy) {
        copy();
    }
}

} // namespace

namespace manual_timer {

Record record(std::size_t timer) {
    std::lock_guard<std::mutex> const lock(theMutex);
    return *theTimers.at(timer).record;
}

void reset() {
    std::lock_guard<std::mutex> const lock(theMutex);
    for (auto const& timer : theTimers) {
        *timer.record = Record();
    }
    theRestartHook = nullptr;
    theStopHook = nullptr;
}

void expire(std::size_t timer) {
    std::function<void()> callback;
    {
        std::lock_guard<std::mutex> const lock(theMutex);
        callback = theTimers.at(timer).callback;
    }
    callback();
}

void onRestart(std::function<void()> hook) {
    std::lock_guard<std::mutex> const lock(theMutex);
    theRestartHook = std::move(hook);
}

void onStop(std::function<void()> hook) {
    std::lock_guard<std::mutex> const lock(theMutex);
    theStopHook = std::move(hook);
}

} // namespace manual_timer

namespace zym::common {

// In the program itself, these come before those of the shared library.

Timer::Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce)
    : engine_(std::make_shared<Engine>()), once(engine_->once) {
    engine_->period = period;
    once = expireOnce;
    std::lock_guard<std::mutex> const lock(theMutex);
    theTimers.push_back({engine_.get(), &engine_->record, std::move(callback)});
}

Timer::~Timer() {
    std::lock_guard<std::mutex> const lock(theMutex);
    auto const isOurs = [this](Known const& known) { return known.engine == engine_.get(); };
    theTimers.erase(std::find_if(theTimers.begin(), theTimers.end(), isOurs));
}

std::mutex& Timer::mutex() noexcept {
    return engine_->mutex;
}

void Timer::setPeriod(std::chrono::milliseconds period,
                      std::unique_lock<std::mutex>& /*lock*/) noexcept {
    engine_->period = period;
}

void Timer::restart(std::unique_lock<std::mutex>& /*lock*/) {
    call(theRestartHook);
    change(engine_->record, [this](auto& record) {
        ++record.restarts;
        record.armed = true;
        record.once = once;
        record.period = engine_->period;
    });
}

void Timer::stop() {
    change(engine_->record, [](auto& record) {
        ++record.stops;
        record.armed = false;
    });
    call(theStopHook);
}

void Timer::terminate() {
    change(engine_->record, [](auto& record) {
        ++record.terminations;
        record.armed = false;
    });
}

} // namespace zym::common
