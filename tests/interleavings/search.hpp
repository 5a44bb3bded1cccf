#pragma once

#include "interleavings/run.hpp"
#include "interleavings/schedule.hpp"

#include <chrono>
#include <cstddef>
#include <optional>
#include <random>
#include <string>

namespace interleavings {

/// How far a search goes.
struct Budget {
    std::size_t schedules = 4000;    ///< half of them systematic, at most
    std::chrono::seconds seconds{0}; ///< and then random ones for so long
    unsigned seed = 1;
};

/// What a search has found.
struct Finding {
    std::string failure;
    Schedule schedule; ///< without any deviation that it does not need
    std::size_t after = 0;
    std::size_t deviations = 0; ///< before it was made smaller
};

struct Found {
    std::optional<Finding> finding;
    std::size_t systematic = 0;
    std::size_t random = 0;
    std::size_t complete = 0; ///< all schedules with so many deviations were run
    bool exhausted = false;   ///< all schedules with at most two preemptions were run
};

/// Looks for a schedule that fails. First systematically: without deviations, then with one, with
/// two and so on, as long as at most two of them are preemptions; then at random. Of a level with
/// more schedules than there is room for, some are taken by chance, or only the beginning of the
/// scenario would be seen.
class Search {
public:
    Search(Runner& runner, bool pauses, Budget const& budget);
    Found run();

private:
    using Schedules = std::vector<Schedule>;
    /// The schedules with one deviation more; of too many, a sample.
    struct Level {
        Schedules schedules;
        std::size_t seen = 0;
    };

    bool searchSystematically();
    bool searchAtRandom();
    bool tryLevel(Schedules const& level, Level& next);
    void addSuccessors(Schedule const& schedule, std::vector<Choice> const& choices, Level& next);
    void add(Schedule schedule, Level& level);
    bool isTried(Plan const& plan, std::vector<Choice>& choices);
    Finding shrunk(Schedule schedule, std::string failure);
    bool shrink(Schedule& schedule, std::size_t part, std::string& failure);

    Runner& runner_;
    bool const pauses_;
    Budget const budget_;
    std::mt19937 random_;
    Found found_;
};

} // namespace interleavings
