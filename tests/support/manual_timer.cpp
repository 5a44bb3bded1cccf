#include "support/manual_timer.hpp"

#include "support/watched.hpp"

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
};

} // namespace zym::common

namespace {

struct KnownTimer {
    void const* engine; ///< its type is private to the timer
    std::function<void()> callback;
    manual_timer::Record record;
};

struct State {
    std::vector<KnownTimer> timers;
    std::function<void()> onRestart;
    std::function<void()> onStop;
};

support::Watched<State> state;

template <class Change>
void changeRecord(void const* engine, Change const& change) {
    state.change([&](State& all) {
        for (KnownTimer& timer : all.timers) {
            if (timer.engine == engine) {
                change(timer.record);
            }
        }
    });
}

/// With no lock held.
void call(std::function<void()> const& hook) {
    if (hook) {
        hook();
    }
}

} // namespace

namespace manual_timer {

Record record(std::size_t timer) {
    return state.read([&](State const& all) { return all.timers.at(timer).record; });
}

void reset() {
    state.change([](State& all) {
        for (KnownTimer& timer : all.timers) {
            timer.record = Record();
        }
        all.onRestart = nullptr;
        all.onStop = nullptr;
    });
}

void expire(std::size_t timer) {
    call(state.read([&](State const& all) { return all.timers.at(timer).callback; }));
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

Timer::Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce)
    : engine_(std::make_shared<Engine>()), once(engine_->once) {
    engine_->period = period;
    once = expireOnce;
    state.change([&](State& all) {
        all.timers.push_back({engine_.get(), std::move(callback), {}});
    });
}

Timer::~Timer() {
    state.change([this](State& all) {
        auto const isOurs = [this](KnownTimer const& timer) {
            return timer.engine == engine_.get();
        };
        all.timers.erase(std::find_if(all.timers.begin(), all.timers.end(), isOurs));
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
    changeRecord(engine_.get(), [this](manual_timer::Record& record) {
        ++record.restarts;
        record.armed = true;
        record.once = once;
        record.period = engine_->period;
    });
}

void Timer::stop() {
    changeRecord(engine_.get(), [](manual_timer::Record& record) {
        ++record.stops;
        record.armed = false;
    });
    call(state.read([](State const& all) { return all.onStop; }));
}

void Timer::terminate() {
    changeRecord(engine_.get(), [](manual_timer::Record& record) {
        ++record.terminations;
        record.armed = false;
    });
}

} // namespace zym::common
