// Explores scenarios: runs each with many orders of its threads, until a run fails.
//
// Usage: interleavings [options] [scenario ...]     (without a name: all)
//   --list               prints the names
//   --schedules N        of each scenario
//   --seconds N          random ones for so long, after these
//   --seed N
//   --mistaken           each scenario makes its mistake, and the explorer fails unless it finds it
//   --replay SCHEDULE    one run of each scenario, with every switch: --replay "17:1 42:2"

#include "interleavings/run.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace interleavings;
using Clock = std::chrono::steady_clock;

/// For example `17:1 42:2`.
std::string textOf(Schedule const& schedule) {
    std::string text;
    for (auto const& [choice, option] : schedule) {
        text += (text.empty() ? "" : " ") + std::to_string(choice) + ':' + std::to_string(option);
    }
    return text;
}

Schedule scheduleFrom(std::string const& text) {
    Schedule schedule;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        std::size_t choice = 0;
        std::size_t option = 0;
        if (std::sscanf(word.c_str(), "%zu:%zu", &choice, &option) != 2) {
            throw std::invalid_argument("Not a schedule: " + text);
        }
        schedule[choice] = option;
    }
    return schedule;
}

/// The schedule that repeats a run.
Schedule scheduleOf(RunRecord const& record) {
    Schedule schedule;
    for (std::size_t choice = 0; choice < record.choiceCount; ++choice) {
        if (record.choices[choice].taken != 0) {
            schedule[choice] = record.choices[choice].taken;
        }
    }
    return schedule;
}

struct Options {
    std::vector<Scenario> scenarios;
    bool list = false;
    std::size_t schedules = 2000;
    std::chrono::seconds seconds{0};
    unsigned seed = 1;
    bool mistaken = false;
    std::optional<Schedule> replay;
};

Scenario const& scenarioNamed(std::string const& name) {
    auto const found = std::find_if(scenarios().begin(), scenarios().end(),
                                    [&](auto const& scenario) { return scenario.name == name; });
    if (found == scenarios().end()) {
        throw std::invalid_argument("There is no scenario or option " + name);
    }
    return *found;
}

Options parse(std::vector<std::string> const& words) {
    Options options;
    auto word = words.begin();
    auto const value = [&] { return word + 1 == words.end() ? std::string() : *++word; };
    auto const number = [&] { return std::stoul(value()); };
    std::map<std::string, std::function<void()>> const setters{
        {"--list", [&] { options.list = true; }},
        {"--schedules", [&] { options.schedules = number(); }},
        {"--seconds", [&] { options.seconds = std::chrono::seconds(number()); }},
        {"--seed", [&] { options.seed = static_cast<unsigned>(number()); }},
        {"--mistaken", [&] { options.mistaken = true; }},
        {"--replay", [&] { options.replay = scheduleFrom(value()); }}};
    for (; word < words.end(); ++word) {
        auto const setter = setters.find(*word);
        if (setter != setters.end()) {
            setter->second();
        } else {
            options.scenarios.push_back(scenarioNamed(*word));
        }
    }
    if (options.scenarios.empty()) {
        options.scenarios = scenarios();
    }
    return options;
}

/// The search for a schedule with which a scenario fails.
class Search {
public:
    Search(Scenario const& scenario, Options const& options)
        : scenario_(scenario), options_(options) {}

    /// Runs the schedule without choices, then every schedule with one choice, or as many as half
    /// of the budget allows, then random schedules. Prints the result.
    /// @return whether none fails; with mistakes, whether one fails
    bool isAsExpected() {
        bool const fails = runSystematically() || runAtRandom();
        std::cout << scenario_.name << (fails ? " fails after " : " passes ") << runs_
                  << " schedules";
        if (fails) {
            reduce();
            std::cout << ": " << failure_ << "\n    interleavings --replay \"" << textOf(schedule_)
                      << (options_.mistaken ? "\" --mistaken " : "\" ") << scenario_.name;
        } else {
            std::cout << ", " << (isComplete_ ? "all" : "some") << " of those with one choice";
        }
        std::cout << std::endl;
        return fails == options_.mistaken;
    }

    /// Runs one schedule; prints every switch.
    bool replay(Schedule const& schedule) {
        Plan plan{schedule};
        plan.traced = true;
        bool const isFailing = fails(plan);
        printTrace();
        std::cout << scenario_.name << ": " << (isFailing ? failure_ : "passes") << std::endl;
        return !isFailing;
    }

private:
    bool runSystematically() {
        if (fails({})) {
            return true;
        }
        std::vector<Schedule> schedules;
        for (std::size_t choice = 0; choice < lastRun().choiceCount; ++choice) {
            for (std::size_t option = 1; option < lastRun().choices[choice].options; ++option) {
                schedules.push_back({{choice, option}});
            }
        }
        isComplete_ = schedules.size() <= options_.schedules / 2;
        if (!isComplete_) {
            std::shuffle(schedules.begin(), schedules.end(), std::mt19937(options_.seed));
            schedules.resize(options_.schedules / 2);
        }
        return std::any_of(schedules.begin(), schedules.end(),
                           [this](Schedule const& schedule) { return fails({schedule}); });
    }

    bool runAtRandom() {
        auto const end = Clock::now() + options_.seconds;
        for (auto seed = options_.seed; runs_ < options_.schedules || Clock::now() < end; ++seed) {
            if (fails({{}, seed})) {
                return true;
            }
        }
        return false;
    }

    bool fails(Plan plan) {
        plan.mistaken = options_.mistaken;
        ++runs_;
        failure_ = run(scenario_, plan);
        schedule_ = scheduleOf(lastRun());
        return !failure_.empty();
    }

    /// Leaves out one choice after the other, from the last one on, as long as the run fails.
    void reduce() {
        auto failure = failure_;
        auto needed = schedule_;
        for (auto i = needed.size(); i > 0; --i) {
            auto fewer = needed;
            fewer.erase(std::next(fewer.begin(), static_cast<std::ptrdiff_t>(i) - 1));
            // Later ones may be choices that the run no longer makes.
            if (fails({fewer}) && schedule_.size() < needed.size()) {
                failure = failure_;
                needed = schedule_;
                i = std::min(i, needed.size() + 1);
            }
        }
        failure_ = failure;
        schedule_ = needed;
    }

    Scenario const& scenario_;
    Options const& options_;
    std::size_t runs_ = 0;
    bool isComplete_ = false; ///< every schedule with one choice was run
    std::string failure_;     ///< of the last run
    Schedule schedule_;       ///< of the last run
};

bool run(Options const& options) {
    std::size_t unexpected = 0;
    for (auto const& scenario : options.scenarios) {
        Search search(scenario, options);
        if (options.list) {
            std::cout << scenario.name << '\n';
        } else if (!(options.replay ? search.replay(*options.replay) : search.isAsExpected())) {
            ++unexpected;
        }
    }
    return unexpected == 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(parse({argv + 1, argv + argc})) ? 0 : 1;
    } catch (std::exception const& error) {
        std::cerr << "interleavings: " << error.what() << std::endl;
        return 2;
    }
}
