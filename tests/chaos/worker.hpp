#pragma once

#include "chaos/test_bed.hpp"

#include "mqtt/test/watched.hpp"

#include <string>
#include <thread>

namespace chaos {

/// Uses the library step by step on a thread of its own, unless paused. Paused at first.
class Worker {
public:
    Worker(TestBed& on, std::string nameOfIt, int maxPauseMs)
        : name(std::move(nameOfIt)), testBed(on), random(on.seed, name), maxPauseMs_(maxPauseMs) {}
    virtual ~Worker() = default;
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    void start() {
        order(Order::WORK);
        // Not in the constructor: the derived class is not constructed there.
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { run(); });
        }
    }
    /// Does not wait for the end of the current step; `waitUntilPaused` does.
    void pause() { order(Order::PAUSE); }
    void waitUntilPaused() {
        check(state_.waitFor([](State const& state) { return !state.inStep; }, END_DEADLINE),
              "a step does not end");
    }
    /// Ends the thread, after the current step. To be called before the destruction.
    void end() {
        order(Order::END);
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    /// Checks that it still works, while it is paused and there are no faults.
    void verify() {
        check(mqtt::test::eventually([this] { return step(); }, END_DEADLINE), "no longer works");
    }

    std::string const name;

protected:
    /// Uses the library once.
    /// @return whether that has succeeded; without faults it has to, after some repetitions
    virtual bool step() = 0;
    /// Waits for a random time; `pause` ends the wait.
    void wait(int fromMs, int toMs) {
        std::chrono::milliseconds const time(random.between(fromMs, toMs));
        state_.waitFor([](State const& state) { return state.order != Order::WORK; }, time);
    }
    void count(std::string const& what, std::uint64_t n = 1) { testBed.report.count(what, n); }
    void check(bool holds, std::string const& otherwise) {
        testBed.report.check(holds, name + ": " + otherwise);
    }

    TestBed& testBed;
    Random random; ///< for steps

private:
    enum class Order { PAUSE, WORK, END };
    struct State {
        Order order = Order::PAUSE;
        bool inStep = false;
    };

    void order(Order order) {
        state_.change([&](State& state) { state.order = order; });
    }
    void run() {
        for (;;) {
            Order const order = state_.change([](State& state) {
                state.inStep = state.order == Order::WORK;
                return state.order;
            });
            if (order == Order::END) {
                return;
            }
            if (order == Order::WORK) {
                step();
                wait(0, maxPauseMs_);
            } else {
                state_.waitFor([](State const& state) { return state.order != Order::PAUSE; });
            }
        }
    }

    int const maxPauseMs_; ///< between two steps
    mqtt::test::Watched<State> state_;
    std::thread thread_;
};

} // namespace chaos
