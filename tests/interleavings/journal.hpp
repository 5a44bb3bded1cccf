#pragma once

#include "interleavings/schedule.hpp"

#include <array>
#include <cstddef>
#include <cstdint>

namespace interleavings {

/// A place in the program, from the inside out.
struct Place {
    std::array<void*, 20> frames;
    int count;
};

/// What a run leaves to the process that has started it, in memory that both share. No pointer in
/// it but to code and to literals, which are the same in both.
struct Journal {
    /// A switch from one thread to another.
    struct Switch {
        std::int64_t nanoseconds; ///< virtual
        std::uint32_t choices;    ///< made before it
        int from;
        int to;
        char const* reason; ///< why `from` does not go on
        Place place;        ///< of `from`
    };
    /// A thread at the end of a failed run.
    struct Waiting {
        int thread;
        char const* what;
        int holder; ///< the thread that has the mutex waited for; -1: none
        Place place;
    };

    std::size_t choiceCount;
    std::array<Choice, 1U << 18U> choices;
    bool ended; ///< the scenario has come to its end
    std::array<char, 1024> failure;
    std::size_t switchCount;
    std::array<Switch, 4096> switches;
    std::size_t waitingCount;
    std::array<Waiting, 64> waiting;

    void clear() {
        choiceCount = switchCount = waitingCount = 0;
        ended = false;
        failure[0] = '\0';
    }
};

} // namespace interleavings
