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
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace interleavings;

struct CommandLine {
    std::vector<Scenario> scenarios;
    Options options;
    bool list = false;
    std::optional<Schedule> replay;
};

Scenario const& scenarioNamed(std::string const& name) {
    auto const found = std::find_if(scenarios().begin(), scenarios().end(),
                                    [&](auto const& scenario) { return scenario.name == name; });
    if (found == scenarios().end()) {
        throw std::invalid_argument("There is no scenario " + name);
    }
    return *found;
}

CommandLine parse(std::vector<std::string> const& words) {
    CommandLine line;
    for (auto word = words.begin(); word != words.end(); ++word) {
        auto const number = [&] { return std::stoul(*++word); };
        if (*word == "--list") {
            line.list = true;
        } else if (*word == "--mistaken") {
            line.options.mistaken = true;
        } else if (word->rfind("--", 0) != 0) {
            line.scenarios.push_back(scenarioNamed(*word));
        } else if (std::next(word) == words.end()) {
            throw std::invalid_argument("Unknown option, or no value: " + *word);
        } else if (*word == "--schedules") {
            line.options.schedules = number();
        } else if (*word == "--seconds") {
            line.options.seconds = std::chrono::seconds(number());
        } else if (*word == "--seed") {
            line.options.seed = static_cast<unsigned>(number());
        } else if (*word == "--replay") {
            line.replay = scheduleFrom(*++word);
        } else {
            throw std::invalid_argument("Unknown option " + *word);
        }
    }
    if (line.replay && line.scenarios.size() != 1) {
        throw std::invalid_argument("--replay needs the name of one scenario");
    }
    return line;
}

bool exploreAll(std::vector<Scenario> const& selected, Options const& options) {
    std::size_t runs = 0;
    std::size_t unexpected = 0;
    for (auto const& scenario : selected) {
        Explorer explorer(scenario, options);
        unexpected += explorer.explore() ? 0U : 1U;
        runs += explorer.runs();
    }
    std::cout << selected.size() << " scenarios, " << runs << " schedules, " << unexpected
              << (options.mistaken ? " mistakes not found" : " failures") << std::endl;
    return unexpected == 0;
}

bool run(CommandLine const& line) {
    if (line.replay) {
        return Explorer(line.scenarios[0], line.options).replay(*line.replay);
    }
    if (!line.list) {
        return exploreAll(line.scenarios.empty() ? scenarios() : line.scenarios, line.options);
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
