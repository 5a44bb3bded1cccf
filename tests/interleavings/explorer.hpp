#pragma once

#include "interleavings/scenario.hpp"
#include "interleavings/schedule.hpp"
#include "interleavings/scheduler.hpp"

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace interleavings {

struct RunResult {
    std::string failure; ///< empty: none
    std::vector<Choice> choices;
};

/// Runs a scenario, each time in its own process.
class Runner {
public:
    Runner(Scenario const& scenario, bool mistaken);

    RunResult run(Plan plan);
    /// Also prints every switch and, after a failure, where each thread stands.
    RunResult runTraced(Plan plan, std::ostream& out);
    Scenario const& scenario() const { return scenario_; }
    std::size_t runs() const { return runs_; }

private:
    [[noreturn]] void runInThisProcess(Plan const& plan) const;

    Scenario const& scenario_;
    bool const mistaken_;
    RunRecord& record_;
    std::size_t runs_ = 0;
};

/// The length of a search.
struct Budget {
    std::size_t schedules = 2000;
    std::chrono::seconds seconds{0}; ///< after these, random ones for so long
    unsigned seed = 1;
};

struct Failure {
    std::string text;
    Schedule schedule;          ///< fails only with all of its deviations
    std::size_t schedules = 0;  ///< that were run until it was found
    std::size_t deviations = 0; ///< before the schedule was reduced
};

struct SearchResult {
    std::optional<Failure> failure;
    std::size_t systematic = 0;
    std::size_t random = 0;
    bool complete = false; ///< every schedule with one deviation was run
};

/// Searches for a schedule that fails: first runs the schedule without deviations, then every
/// schedule with one deviation, or as many as half of the budget allows, then random schedules.
class Search {
public:
    Search(Runner& runner, Budget const& budget);
    SearchResult run();

private:
    bool searchSystematically();
    bool searchAtRandom();
    bool fails(Plan const& plan);
    void reduce(Failure& failure);

    Runner& runner_;
    Budget const budget_;
    std::vector<Choice> choices_; ///< of the last run
    SearchResult result_;
};

} // namespace interleavings
