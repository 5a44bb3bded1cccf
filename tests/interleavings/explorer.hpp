#pragma once

#include "interleavings/scenario.hpp"
#include "interleavings/schedule.hpp"
#include "interleavings/scheduler.hpp"

#include <chrono>
#include <cstddef>
#include <string>

namespace interleavings {

struct Options {
    std::size_t schedules = 2000;
    std::chrono::seconds seconds{0}; ///< after these, random ones for so long
    unsigned seed = 1;
    bool mistaken = false; ///< scenarios make their mistakes
};

/// Runs a scenario with many schedules, each time in its own process.
class Explorer {
public:
    Explorer(Scenario const& scenario, Options const& options);

    /// Searches for a schedule that fails: first runs the schedule without deviations, then every
    /// schedule with one deviation, or as many as half of the budget allows, then random schedules.
    /// Prints the result.
    /// @return whether none fails; with mistakes, whether one fails
    bool explore();
    /// Runs one schedule; prints every switch and, after a failure, where each thread stands.
    /// @return whether it does not fail
    bool replay(Schedule const& schedule);
    std::size_t runs() const { return runs_; }

private:
    std::string run(Plan plan);
    [[noreturn]] void runInThisProcess(Plan const& plan) const;
    bool searchSystematically();
    bool searchAtRandom();
    bool fails(Plan const& plan);
    void reduce();
    void print(std::chrono::steady_clock::time_point start) const;

    Scenario const& scenario_;
    Options const options_;
    RunRecord& record_; ///< of the last run
    std::size_t runs_ = 0;
    std::size_t systematic_ = 0;
    std::size_t random_ = 0;
    bool complete_ = false; ///< every schedule with one deviation was run
    // When a run has failed:
    std::string failure_;
    std::size_t runsUntilFailure_ = 0;
    std::size_t deviations_ = 0;
    Schedule schedule_; ///< reduced: fails only with all of its deviations
};

} // namespace interleavings
