#include "operations.hpp"

using std::chrono::milliseconds;

namespace {

void makeTimer(Stage& stage) {
    stage.things.makeTimer();
}

/// Again and again.
void run(Stage& stage) {
    if (stage.own) {
        return;
    }
    stage.things.makeTimer();
    stage.things.restartTimer(milliseconds(1), false);
    EXPECT_TRUE(stage.ear.waitFor("timer"));
}

/// A call that had been decided on may still have come, but only one.
void expectSilence(Stage& stage) {
    auto const& timer = stage.callers.makeTimer();
    static_cast<void>(timer);
    auto const before = stage.ear.count("timer");
    stage.callers.ear.clear();
    stage.callers.restartTimer(milliseconds(20), true);
    EXPECT_TRUE(stage.callers.ear.waitFor("timer"));
    EXPECT_LE(stage.ear.count("timer"), before + 1);
}

} // namespace

Operations timerOperations() {
    return {{"Timer/restart", makeTimer,
             [](Stage& s) { s.things.restartTimer(milliseconds::zero(), true); },
             [](Stage& s) { EXPECT_TRUE(s.ear.waitFor("timer")); }},
            {"Timer/stop", run, [](Stage& s) { s.things.timer->stop(); }, expectSilence},
            {"Timer/terminate", run, [](Stage& s) { s.things.timer->terminate(); },
             [](Stage& s) {
                 expectSilence(s);
                 s.things.restartTimer(milliseconds::zero(), true);
                 expectSilence(s);
             }},
            {"Timer/destroy", run, [](Stage& s) { s.things.timer.reset(); }, expectSilence}};
}
