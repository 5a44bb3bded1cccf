// Explores scenarios: runs each with many orders of its threads, until a run fails.
//
// Usage: interleavings [options] [scenario ...]     (without a name: all)
//   --list               prints the names
//   --schedules N        of each scenario
//   --seconds N          random ones for so long, after these
//   --seed N
//   --mistaken           each scenario makes its mistake, and the explorer fails unless it finds it
//   --replay SCHEDULE    one run of one scenario, with every switch: --replay "17:1 42:2"

#include "interleavings/explorer.hpp"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace {

using namespace interleavings;
using Clock = std::chrono::steady_clock;

struct Options {
    std::vector<std::string> names;
    Budget budget;
    bool list = false;
    bool mistaken = false;
    std::optional<Schedule> replay;
};

Options parse(std::vector<std::string> const& words) {
    Options options;
    for (auto word = words.begin(); word != words.end(); ++word) {
        auto const number = [&] { return std::stoul(*++word); };
        if (*word == "--list") {
            options.list = true;
        } else if (*word == "--mistaken") {
            options.mistaken = true;
        } else if (word->rfind("--", 0) != 0) {
            options.names.push_back(*word);
        } else if (std::next(word) == words.end()) {
            throw std::invalid_argument("Unknown option, or no value: " + *word);
        } else if (*word == "--schedules") {
            options.budget.schedules = number();
        } else if (*word == "--seconds") {
            options.budget.seconds = std::chrono::seconds(number());
        } else if (*word == "--seed") {
            options.budget.seed = static_cast<unsigned>(number());
        } else if (*word == "--replay") {
            options.replay = scheduleFrom(*++word);
        } else {
            throw std::invalid_argument("Unknown option " + *word);
        }
    }
    return options;
}

std::vector<Scenario> select(std::vector<std::string> const& names) {
    std::vector<Scenario> result;
    for (auto const& name : names) {
        auto const found = std::find_if(scenarios().begin(), scenarios().end(),
                                        [&](auto const& one) { return one.name == name; });
        if (found == scenarios().end()) {
            throw std::invalid_argument("There is no scenario " + name);
        }
        result.push_back(*found);
    }
    return names.empty() ? scenarios() : result;
}

int perSecond(std::size_t runs, Clock::time_point start) {
    return static_cast<int>(static_cast<double>(runs)
                            / std::chrono::duration<double>(Clock::now() - start).count());
}

void print(Runner const& runner, SearchResult const& result, Clock::time_point start) {
    char const* const name = runner.scenario().name;
    std::cout << name << ": " << result.systematic << " systematic ("
              << (result.complete ? "all" : "some") << " with one deviation"
              << "), " << result.random << " random, " << perSecond(runner.runs(), start)
              << " a second" << std::endl;
    if (result.failure) {
        auto const& failure = *result.failure;
        std::cout << "  FAILS after " << failure.schedules << " schedules: " << failure.text
                  << "\n  " << failure.deviations << " deviations, of which "
                  << failure.schedule.size() << " are needed:\n    interleavings"
                  << " --replay \"" << textOf(failure.schedule) << "\" " << name << std::endl;
    }
}

bool replay(Scenario const& scenario, Options const& options) {
    Runner runner(scenario, options.mistaken);
    Plan plan;
    plan.schedule = *options.replay;
    auto const failure = runner.runTraced(plan, std::cout).failure;
    std::cout << scenario.name << ": " << (failure.empty() ? "passes" : failure) << std::endl;
    return failure.empty();
}

bool exploreAll(Options const& options) {
    auto const start = Clock::now();
    auto const selected = select(options.names);
    std::size_t runs = 0;
    int failures = 0;
    for (auto const& scenario : selected) {
        auto const begin = Clock::now();
        Runner runner(scenario, options.mistaken);
        auto const result = Search(runner, options.budget).run();
        print(runner, result, begin);
        runs += runner.runs();
        failures += result.failure.has_value() != options.mistaken;
    }
    std::cout << selected.size() << " scenarios, " << runs << " schedules, "
              << perSecond(runs, start) << " a second, " << failures
              << (options.mistaken ? " mistakes not found" : " failures") << std::endl;
    return failures == 0;
}

bool run(Options const& options) {
    if (options.replay) {
        if (options.names.size() != 1) {
            throw std::invalid_argument("--replay needs the name of one scenario");
        }
        return replay(select(options.names)[0], options);
    }
    if (!options.list) {
        return exploreAll(options);
    }
    for (auto const& scenario : scenarios()) {
        std::cout << scenario.name << "\n";
    }
    return true;
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
