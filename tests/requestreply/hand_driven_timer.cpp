#include "requestreply/hand_driven_timer.hpp"

#include <zym/common/timer.hpp>

#include <utility>

namespace {

std::mutex theMutex; // what follows
hand_driven_timer::Record theRecord;
std::function<void()> theCallback;
std::function<void()> theStopHook;

} // namespace

namespace hand_driven_timer {

Record record() {
    std::lock_guard<std::mutex> const lock(theMutex);
    return theRecord;
}

void reset() {
    std::lock_guard<std::mutex> const lock(theMutex);
    theRecord = Record();
    theStopHook = nullptr;
}

void expire() {
    std::function<void()> callback;
    {
        std::lock_guard<std::mutex> const lock(theMutex);
        callback = theCallback;
    }
    callback();
}

void onStop(std::function<void()> hook) {
    std::lock_guard<std::mutex> const lock(theMutex);
    theStopHook = std::move(hook);
}

} // namespace hand_driven_timer

namespace zym::common {

// In the program itself, these come before those of the shared library.

struct Timer::Engine {
    std::mutex mutex;
    std::chrono::milliseconds period;
    bool once;
};

Timer::Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce)
    : engine_(std::make_shared<Engine>()), once(engine_->once) {
    engine_->period = period;
    once = expireOnce;
    std::lock_guard<std::mutex> const lock(theMutex);
    theCallback = std::move(callback);
}

Timer::~Timer() = default;

std::mutex& Timer::mutex() noexcept {
    return engine_->mutex;
}

void Timer::setPeriod(std::chrono::milliseconds period,
                      std::unique_lock<std::mutex>& /*lock*/) noexcept {
    engine_->period = period;
}

void Timer::restart(std::unique_lock<std::mutex>& /*lock*/) {
    std::lock_guard<std::mutex> const lock(theMutex);
    ++theRecord.restarts;
    theRecord.armed = true;
    theRecord.once = once;
    theRecord.period = engine_->period;
}

void Timer::stop() {
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> const lock(theMutex);
        ++theRecord.stops;
        theRecord.armed = false;
        hook = theStopHook;
    }
    if (hook)
        hook();
}

void Timer::terminate() {
    std::lock_guard<std::mutex> const lock(theMutex);
    ++theRecord.terminations;
    theRecord.armed = false;
}

} // namespace zym::common
