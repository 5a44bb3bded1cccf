#include "client/network_turn.hpp"

#include <gtest/gtest.h>

#include <atomic>
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
        --inside;
        turn.giveBack();
    }
    stop = true;
    worker.join();
    EXPECT_FALSE(together);
}

TEST(TheNetworkTurn, IsNotWaitedForLongerThanACallersPatience) {
    NetworkTurn turn;
    turn.enter();
    EXPECT_FALSE(turn.takeWithin(std::chrono::milliseconds(1)));
    turn.leave();
    turn.enter(); // would wait for ever if the caller that gave up still counted
    turn.leave();
}

TEST(TheNetworkTurn, GoesToACallerWithPatience) {
    NetworkTurn turn;
    turn.enter();
    std::thread worker([&] { turn.leave(); });
    EXPECT_TRUE(turn.takeWithin(std::chrono::minutes(1)));
    turn.giveBack();
    worker.join();
}

} // namespace
