#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace interleavings {

/// A choice that a run made, where it had several ways to continue.
struct Choice {
    std::uint8_t taken = 0; ///< 0: what happens without the explorer
    std::uint8_t ways = 0;
};

/// A choice for which a schedule takes another way than 0.
struct Deviation {
    std::uint32_t choice = 0; ///< its number in the run
    std::uint8_t taken = 0;
};

/// Determines a run: way 0 at every choice, with these exceptions, in the order of the choices.
using Schedule = std::vector<Deviation>;

/// For example `17:1 42:2`.
std::string textOf(Schedule const& schedule);
/// @throws std::invalid_argument
Schedule scheduleFrom(std::string const& text);
/// The schedule that repeats a run.
Schedule scheduleOf(std::vector<Choice> const& choices);

/// The call stack of a thread, innermost function first.
struct Stack {
    std::array<void*, 20> frames;
    int count;
};

/// An entry in the trace of a run: a thread stopped, or it stands still at the end of a failed run.
struct Event {
    std::int64_t nanoseconds; ///< virtual
    std::size_t choices;      ///< number of choices made before
    int thread;
    char const* what;
    char const* relation; ///< of the other thread: the one that continues, or holds the mutex
    int otherThread;      ///< -1: none
    Stack stack;          ///< of `thread`
};

/// The result of a run, in memory shared with the process that started it. Its only pointers are to
/// code and string literals, which have the same addresses in both processes.
struct RunRecord {
    bool completed; ///< the scenario has reached its end
    std::array<char, 1024> failure;
    std::size_t choiceCount;
    std::array<Choice, 1U << 18U> choices;
    std::size_t eventCount;
    std::array<Event, 4096> events;
};

} // namespace interleavings
