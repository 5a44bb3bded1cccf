#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace interleavings {

/// One choice of a run, at a point where there was more than one way to go on.
struct Choice {
    std::uint8_t taken = 0; ///< 0: as if there were no explorer
    std::uint8_t among = 0;
    bool preempts = false; ///< whether any other than 0 stops a thread that could go on
};

/// A choice that a schedule makes in another way than 0.
struct Deviation {
    std::uint32_t at = 0; ///< counted from the first choice of the run
    std::uint8_t taken = 0;
};

/// Which way a run goes. As text: `pause 17:1 42:2`; an empty one is the run without deviations.
struct Schedule {
    bool pause = false; ///< whether the scenario's pauses last
    std::vector<Deviation> deviations;

    std::string text() const;
    /// @throws std::invalid_argument
    static Schedule fromText(std::string const& text);
    /// The schedule that repeats a run.
    static Schedule of(bool pause, std::vector<Choice> const& choices);
};

} // namespace interleavings
