#include "client/network_turn.hpp"

#include "support/watched.hpp"

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
    turn.leave();
    turn.enter(); // never returns if the caller that gave up still counts
    std::thread worker([&] { turn.leave(); });
    EXPECT_TRUE(turn.takeWithin(std::chrono::minutes(1), [] { return true; }));
    turn.giveBack();
    worker.join();
}

/// A worker that stays in each of its steps until it is woken.
class WaitingWorker {
public:
    explicit WaitingWorker(NetworkTurn& turn) : turn_(turn) {}
    ~WaitingWorker() {
        state_.change([](State& state) { state.stop = true; });
        thread_.join();
    }
    WaitingWorker(WaitingWorker const&) = delete;
    WaitingWorker& operator=(WaitingWorker const&) = delete;

    bool awaitStep() const {
        return state_.waitFor([](State const& state) { return state.isInside; });
    }

    /// Returns when the step is over and the next one may begin.
    bool wake() {
        state_.change([](State& state) { state.isWoken = true; });
        return state_.waitFor([](State const& state) { return !state.isInside; });
    }

private:
    struct State {
        bool stop = false;
        bool isInside = false;
        bool isWoken = false;
    };

    void run() {
        while (!state_.copy().stop) {
            turn_.enter();
            state_.change([](State& state) { state.isInside = true; });
            state_.waitFor([](State const& state) { return state.isWoken || state.stop; });
            turn_.leave();
            state_.change([](State& state) { state.isInside = state.isWoken = false; });
        }
    }

    NetworkTurn& turn_;
    support::Watched<State> state_;
    std::thread thread_{[this] { run(); }};
};

TEST(TheNetworkTurn, GoesToACallerThatHasWokenTheWorkerBeforeTheNextStep) {
    NetworkTurn turn;
    WaitingWorker worker(turn);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(worker.awaitStep());
        ASSERT_TRUE(turn.takeWithin(std::chrono::minutes(1), [&] { return worker.wake(); }));
        turn.giveBack();
    }
}

TEST(TheNetworkTurn, StaysWithTheWorkerThatCannotBeWoken) {
    NetworkTurn turn;
    EXPECT_FALSE(turn.takeWithin(std::chrono::minutes(1), [] { return false; }));
    turn.enter(); // never returns if the caller still counts
    turn.leave();
}

} // namespace
