#include "client/network_turn.hpp"

#include "mqtt/test/watched.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using mqtt::NetworkTurn;

TEST(TheNetworkTurn, GoesToACallerHoweverOftenTheWorkerComesBack) {
    NetworkTurn turn;
    std::atomic<bool> stop{false};
    std::atomic<int> inside{0};
    std::atomic<bool> together{false};
    std::thread worker([&] {
        while (!stop) {
            turn.enter();
            together = together || ++inside != 1;
            --inside;
            turn.leave();
        }
    });
    for (int i = 0; i < 1000; ++i) {
        turn.take();
        together = together || ++inside != 1;
        std::this_thread::yield(); // lets the worker in if nothing keeps it out
        --inside;
        turn.giveBack();
    }
    stop = true;
    worker.join();
    EXPECT_FALSE(together);
}

TEST(TheNetworkTurn, IsWaitedForUntilTheTimeoutOfTheCaller) {
    NetworkTurn turn;
    turn.enter();
    EXPECT_FALSE(turn.takeWithin(std::chrono::milliseconds(1), [] { return true; }));
    EXPECT_FALSE(turn.takeWithin(std::chrono::minutes(1), [] { return false; })) << "not woken";
    turn.leave();
    turn.enter(); // never returns if a caller that gave up still counts
    std::thread worker([&] { turn.leave(); });
    EXPECT_TRUE(turn.takeWithin(std::chrono::minutes(1), [] { return true; }));
    turn.giveBack();
    worker.join();
}

TEST(TheNetworkTurn, GoesToACallerThatHasWokenTheWorkerBeforeTheNextStep) {
    NetworkTurn turn;
    mqtt::test::Watched<bool> isInNextStep;
    std::thread worker;
    turn.enter();
    ASSERT_TRUE(turn.takeWithin(std::chrono::minutes(1), [&] {
        worker = std::thread([&] {
            turn.leave();
            turn.enter();
            mqtt::test::set(isInNextStep);
            turn.leave();
        });
        // Enough to come too early.
        isInNextStep.waitFor(mqtt::test::isSet, std::chrono::milliseconds(200));
        return true;
    }));
    EXPECT_FALSE(isInNextStep.copy());
    turn.giveBack();
    worker.join();
}

TEST(TheNetworkTurn, IsNotWaitedForOnceACallerHasHadItSinceTheLastStep) {
    NetworkTurn turn;
    turn.enter();
    turn.leave();
    turn.take();
    turn.giveBack();
    turn.waitForCaller(); // returns at once
    turn.enter();
    turn.leave();
    std::thread caller([&] { turn.end(); });
    turn.waitForCaller();
    caller.join();
    SUCCEED();
}

} // namespace
