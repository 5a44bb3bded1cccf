#include "support/manual_timer.hpp"

#include "mqtt/test/watched.hpp"

#include <zym/common/timer.hpp>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

namespace {

struct ManualTimer {
    std::function<void()> callback;
    manual_timer::Record record{};
};

struct State {
    std::vector<ManualTimer*> timers;
    std::function<void()> onRestart;
    std::function<void()> onStop;
};

mqtt::test::Watched<State> state;

/// With no lock held.
void call(std::function<void()> const& hook) {
    if (hook) {
        hook();
    }
}

} // namespace

namespace manual_timer {

Record record(std::size_t timer) {
    return state.read([&](State const& all) { return all.timers.at(timer)->record; });
}

void reset() {
    state.change([](State& all) {
        for (ManualTimer* timer : all.timers) {
            timer->record = Record();
        }
        all.onRestart = nullptr;
        all.onStop = nullptr;
    });
}

void expire(std::size_t timer) {
    call(state.read([&](State const& all) { return all.timers.at(timer)->callback; }));
}

void onRestart(std::function<void()> hook) {
    state.change([&](State& all) { all.onRestart = std::move(hook); });
}

void onStop(std::function<void()> hook) {
    state.change([&](State& all) { all.onStop = std::move(hook); });
}

} // namespace manual_timer

namespace zym::common {

// In the program itself, these take precedence over those of the shared library.

struct Timer::Engine : ManualTimer {
    std::mutex mutex;
    std::chrono::milliseconds period{0};
    bool once = false;
};

Timer::Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce)
    : engine_(std::make_shared<Engine>()), once(engine_->once) {
    engine_->callback = std::move(callback);
    engine_->period = period;
    once = expireOnce;
    state.change([&](State& all) { all.timers.push_back(engine_.get()); });
}

Timer::~Timer() {
    state.change([this](State& all) {
        all.timers.erase(std::find(all.timers.begin(), all.timers.end(), engine_.get()));
    });
}

std::mutex& Timer::mutex() noexcept {
    return engine_->mutex;
}

void Timer::setPeriod(std::chrono::milliseconds period,
                      std::unique_lock<std::mutex>& /*lock*/) noexcept {
    engine_->period = period;
}

void Timer::restart(std::unique_lock<std::mutex>& /*lock*/) {
    call(state.read([](State const& all) { return all.onRestart; }));
    state.change([this](State&) {
        ++engine_->record.restarts;
        engine_->record.armed = true;
        engine_->record.once = once;
        engine_->record.period = engine_->period;
    });
}

void Timer::stop() {
    state.change([this](State&) { engine_->record.armed = false; });
    call(state.read([](State const& all) { return all.onStop; }));
}

void Timer::terminate() {
    state.change([this](State&) {
        ++engine_->record.terminations;
        engine_->record.armed = false;
    });
}

} // namespace zym::common
