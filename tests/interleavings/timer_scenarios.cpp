// The platform's timer by itself.

#include "interleavings/stage.hpp"

#include <zym/common/timer.hpp>

#include <memory>
#include <system_error>
#include <thread>

using namespace interleavings;
using std::chrono::milliseconds;
using zym::common::Timer;

namespace {

constexpr milliseconds PERIOD{100};

void arm(Timer& timer, milliseconds period, bool once) {
    std::unique_lock<std::mutex> lock(timer.mutex());
    timer.setPeriod(period, lock);
    timer.once = once;
    timer.restart(lock);
}

} // namespace

SCENARIO(RestartingMeetsExpiry, DEADLINES) {
    Ear ear;
    Timer timer([&] { ear.hear(); }, PERIOD, true);
    int before = 0;
    {
        Scene::Exploration const here;
        arm(timer, PERIOD, true);
        std::thread other([&] { arm(timer, PERIOD, true); });
        Scene::pass(PERIOD);
        other.join();
        timer.stop();
        before = ear.count();
        if (!scene.mistaken()) {
            arm(timer, PERIOD, true);
        }
    }
    Scene::pass(LONG);
    Scene::expect(before <= 2 && ear.count() >= 1 && ear.count() <= 3, "it expires too often");
    Scene::expect(ear.count() > before, "it does not expire after a restart");
}

SCENARIO(TheEndOfATimerMeetsItsExpiry, DEADLINES) {
    Ear ear;
    auto timer = std::make_unique<Timer>([&] { ear.hear(); }, PERIOD, false);
    {
        Scene::Exploration const here;
        arm(*timer, PERIOD, false);
        std::thread other([&] { timer->terminate(); });
        Scene::pass(PERIOD);
        if (scene.mistaken()) {
            timer->stop();
        } else {
            timer->terminate();
        }
        ear.close();
        other.join();
    }
    timer.reset();
    Scene::pass(LONG);
}

SCENARIO(ATimerEndsInItsCallback, DEADLINES) {
    std::unique_ptr<Timer> timer;
    Ear ear([&] { timer.reset(); });
    timer = std::make_unique<Timer>([&] { ear.hear(); }, PERIOD, false);
    {
        Scene::Exploration const here;
        arm(*timer, PERIOD, false);
        if (scene.mistaken()) {
            timer->stop();
        }
        Scene::pass(PERIOD);
    }
    Scene::pass(LONG);
    Scene::expect(ear.count() == 1 && timer == nullptr, "it does not expire once");
}

SCENARIO(ATimerWithoutAThread, NO_THREAD) {
    Ear ear;
    Timer timer([&] { ear.hear(); }, PERIOD, true);
    {
        Scene::Exploration const here;
        try {
            arm(timer, PERIOD, true);
        } catch (std::system_error const&) {
            if (!scene.mistaken()) {
                arm(timer, PERIOD, true);
            }
        }
    }
    Scene::pass(LONG);
    Scene::expect(ear.count() == 1, "it does not expire once");
}
