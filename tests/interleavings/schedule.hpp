#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

namespace interleavings {

/// Determines a run: for each choice, by its number, the option that is taken. A choice that is not
/// named takes option 0, which is what happens without the explorer.
using Schedule = std::map<std::size_t, std::size_t>;

/// A place where a run could continue in several ways.
struct Choice {
    std::uint8_t taken = 0; ///< the option
    std::uint8_t options = 0;
};

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
    int next; ///< the thread that continues; -1: none
    Stack stack;
};

/// How a process ends whose scenario has reached its end.
constexpr int SUCCESS_STATUS = 42;

/// The result of a run, in memory shared with the process that started it. Its only pointers are to
/// code and string literals, which have the same addresses in both processes.
struct RunRecord {
    std::array<char, 1024> failure;
    std::size_t choiceCount;
    std::array<Choice, 1U << 18U> choices;
    std::size_t eventCount;
    std::array<Event, 4096> events;
};

} // namespace interleavings
