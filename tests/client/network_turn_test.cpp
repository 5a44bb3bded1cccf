#include "client/network_turn.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
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
        {
            std::lock_guard const lock(mutex_);
            stop_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    WaitingWorker(WaitingWorker const&) = delete;
    WaitingWorker& operator=(WaitingWorker const&) = delete;

    void awaitStep() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return inside_; });
    }

    /// Returns when the step is over and the next one may begin.
    bool wake() {
        std::unique_lock lock(mutex_);
        woken_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !inside_; });
        return true;
    }

private:
    void run() {
        std::unique_lock lock(mutex_, std::defer_lock);
        while (!stop_) {
            turn_.enter();
            lock.lock();
            inside_ = true;
            changed_.notify_all();
            changed_.wait(lock, [this] { return woken_ || stop_; });
            lock.unlock();
            turn_.leave();
            lock.lock();
            inside_ = woken_ = false;
            changed_.notify_all();
            lock.unlock();
        }
    }

    NetworkTurn& turn_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<bool> stop_{false};
    bool inside_ = false;
    bool woken_ = false;
    std::thread thread_{[this] { run(); }};
};

TEST(TheNetworkTurn, GoesToACallerThatHasWokenTheWorkerBeforeTheNextStep) {
    NetworkTurn turn;
    WaitingWorker worker(turn);
    for (int i = 0; i < 1000; ++i) {
        worker.awaitStep();
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
