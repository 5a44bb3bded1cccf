#include "operations.hpp"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

/// With a message on the topic the cleaner looks at once.
void retain(Stage& stage) {
    stage.things.makeCleaner();
    stage.peer.publish(stage.topic("dirt"), "old", 2, true);
}

/// Without any time it ends when the message has come; from inside the cleaner's own call, which
/// then looks for the next request to end, it would end before.
void clean(Stage& stage) {
    auto const duration = stage.own ? std::chrono::hours(1) : milliseconds::zero();
    stage.things.cleaner->clean(stage.topic("dirt"), duration);
}

void expectCleaned(Stage& stage) {
    EXPECT_TRUE(stage.peerSees(stage.topic("dirt"), ""));
    EXPECT_TRUE(stage.own || stage.ear.waitFor("cleaned " + stage.topic("dirt")));
}

/// For an hour, unless it is in the middle of it.
void beginToClean(Stage& stage) {
    if (!stage.own) {
        stage.things.makeCleaner().clean(stage.topic("for ever"), std::chrono::hours(1));
    }
}

} // namespace

Operations cleaningOperations() {
    return {{"TopicCleaner/clean", retain, clean, expectCleaned},
            {"TopicCleaner/waitAllTasks", retain,
             [](Stage& s) {
                 clean(s);
                 EXPECT_TRUE(s.things.cleaner->waitAllTasks(seconds(PATIENCE)));
                 EXPECT_EQ(s.ear.count("cleaned " + s.topic("dirt")), 1U);
             },
             expectCleaned},
            {"TopicCleaner/terminate", beginToClean,
             [](Stage& s) { s.things.cleaner->terminate(); },
             [](Stage& s) {
                 s.things.cleaner->clean(s.topic("late"), std::chrono::hours(1));
                 EXPECT_TRUE(s.things.cleaner->waitAllTasks(seconds(PATIENCE)));
             }},
            {"TopicCleaner/destroy", beginToClean, [](Stage& s) { s.things.cleaner.reset(); },
             [](Stage& s) { s.flush(); }}};
}
