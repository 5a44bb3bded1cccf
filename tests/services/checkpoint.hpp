#pragma once

#include "mqtt/test/watched.hpp"

#include <thread>

/// A place in the code where the test can stop a thread. It is open at first.
class Checkpoint {
public:
    /// Stops the next thread that passes, other than the caller's.
    void close() {
        state_.change([](State& state) { state = {true, false, std::this_thread::get_id()}; });
    }
    /// Waits until it has stopped a thread.
    bool hasStoppedAThread() const {
        return state_.waitFor([](State const& state) { return state.visited; });
    }
    void open() {
        state_.change([](State& state) { state.closed = false; });
    }

    void pass() {
        bool const stops = state_.change([](State& state) {
            bool const first = state.closed && !state.visited;
            state.visited = state.visited || std::this_thread::get_id() != state.owner;
            return first && state.visited;
        });
        if (stops) {
            state_.waitFor([](State const& state) { return !state.closed; });
        }
    }

private:
    struct State {
        bool closed = false;
        bool visited = false;
        std::thread::id owner;
    };
    mqtt::test::Watched<State> state_;
};
