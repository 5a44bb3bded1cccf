// The timer of the platform library.

#include "interleavings/scenario.hpp"

#include <zym/common/timer.hpp>

#include <memory>
#include <mutex>
#include <thread>

namespace interleavings {

using zym::common::Timer;

namespace {

constexpr std::chrono::milliseconds PERIOD{100};

struct TimerFixture {
    void arm(bool once) const {
        std::unique_lock<std::mutex> lock(timer->mutex());
        timer->setPeriod(PERIOD, lock);
        timer->once = once;
        timer->restart(lock);
    }

    CallbackCheck callback;
    std::unique_ptr<Timer> timer =
        std::make_unique<Timer>([this] { callback.onCallback(); }, PERIOD, false);
};

SCENARIO(RestartingMeetsExpiry, TimerFixture, DEADLINES) {
    int before = 0;
    explore([&] {
        arm(true);
        std::thread other([&] { arm(true); });
        pass(PERIOD);
        other.join();
        timer->stop();
        before = callback.count();
        unlessMistaken([&] { arm(true); });
    });
    auto const count = callback.count();
    expect(before <= 2 && count >= 1 && count <= 3, "the timer expires too often");
    expect(count > before, "the timer does not expire after a restart");
}

SCENARIO(TheEndOfATimerMeetsItsExpiry, TimerFixture, DEADLINES) {
    explore([&] {
        arm(false);
        std::thread other([&] { timer->terminate(); });
        pass(PERIOD);
        ifMistaken([&] { timer->stop(); });
        unlessMistaken([&] { timer->terminate(); });
        callback.close();
        other.join();
    });
}

} // namespace

} // namespace interleavings
