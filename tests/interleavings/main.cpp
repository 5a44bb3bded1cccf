// Explores scenarios: which thread goes first where, until something does not hold.
//
// Usage: interleavings [options] [scenario ...]     (all of them without a name)
//   --list               prints the names
//   --schedules N        of each scenario
//   --seconds N          random ones for so long, after these
//   --seed N
//   --mistaken           each scenario makes its mistake, and it is a failure not to find it
//   --replay SCHEDULE    one scenario, one run, with every switch: --replay "pause 17:1 42:2"

#include "interleavings/search.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using namespace interleavings;

struct Wishes {
    std::vector<std::string> names;
    Budget budget;
    bool list = false;
    bool mistaken = false;
    std::optional<Schedule> replay;
};

Wishes wishesOf(std::vector<std::string> const& words) {
    Wishes wishes;
    for (auto word = words.begin(); word != words.end(); ++word) {
        auto const value = [&]() -> std::string const& {
            if (std::next(word) == words.end()) {
                throw std::invalid_argument(*word + " needs a value");
            }
            return *++word;
        };
        if (*word == "--list") {
            wishes.list = true;
        } else if (*word == "--mistaken") {
            wishes.mistaken = true;
        } else if (*word == "--schedules") {
            wishes.budget.schedules = std::stoul(value());
        } else if (*word == "--seconds") {
            wishes.budget.seconds = std::chrono::seconds(std::stoul(value()));
        } else if (*word == "--seed") {
            wishes.budget.seed = static_cast<unsigned>(std::stoul(value()));
        } else if (*word == "--replay") {
            wishes.replay = Schedule::fromText(value());
        } else if (word->rfind("--", 0) == 0) {
            throw std::invalid_argument("Unknown option " + *word);
        } else {
            wishes.names.push_back(*word);
        }
    }
    return wishes;
}

std::vector<Scenario> chosen(std::vector<std::string> const& names) {
    if (names.empty()) {
        return scenarios();
    }
    std::vector<Scenario> result;
    for (auto const& name : names) {
        auto const found = std::find_if(scenarios().begin(), scenarios().end(),
                                        [&](auto const& one) { return one.name == name; });
        if (found == scenarios().end()) {
            throw std::invalid_argument("There is no scenario " + name);
        }
        result.push_back(*found);
    }
    return result;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void tell(Scenario const& scenario, Found const& found, std::size_t runs, double seconds) {
    std::cout << scenario.name << ": " << found.systematic << " systematic ("
              << (found.exhausted ? "all with at most two preemptions"
                                  : "all with " + std::to_string(found.complete)
                                        + " deviations and some with more")
              << "), " << found.random << " random, " << static_cast<int>(double(runs) / seconds)
              << " a second" << std::endl;
    if (!found.finding) {
        return;
    }
    auto const& finding = *found.finding;
    std::cout << "  FAILS after " << finding.after << " schedules: " << finding.failure << "\n  "
              << finding.deviations << " deviations, of which it needs "
              << finding.schedule.deviations.size() << ":\n    interleavings --replay \""
              << finding.schedule.text() << "\" " << scenario.name << std::endl;
}

bool replay(Scenario const& scenario, Wishes const& wishes) {
    Runner runner(scenario, wishes.mistaken);
    Plan plan;
    plan.schedule = *wishes.replay;
    auto const outcome = runner.tell(plan, std::cout);
    std::cout << scenario.name << ": " << (outcome.failure.empty() ? "holds" : outcome.failure)
              << std::endl;
    return outcome.failure.empty();
}

bool exploreAll(Wishes const& wishes) {
    std::size_t runs = 0;
    int failures = 0;
    auto const start = std::chrono::steady_clock::now();
    auto const all = chosen(wishes.names);
    for (auto const& scenario : all) {
        auto const begin = std::chrono::steady_clock::now();
        Runner runner(scenario, wishes.mistaken);
        auto const found = Search(runner, (scenario.explored & PAUSES) != 0, wishes.budget).run();
        runs += runner.count();
        tell(scenario, found, runner.count(), secondsSince(begin));
        failures += found.finding.has_value() != wishes.mistaken;
    }
    std::cout << all.size() << " scenarios, " << runs << " schedules, "
              << static_cast<int>(static_cast<double>(runs) / secondsSince(start)) << " a second, "
              << failures << (wishes.mistaken ? " mistakes not found" : " failures") << std::endl;
    return failures == 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        auto const wishes = wishesOf({argv + 1, argv + argc});
        if (wishes.list) {
            for (auto const& scenario : scenarios()) {
                std::cout << scenario.name << "\n";
            }
            return 0;
        }
        if (wishes.replay && wishes.names.size() != 1) {
            throw std::invalid_argument("A schedule is that of one scenario");
        }
        return (wishes.replay ? replay(chosen(wishes.names)[0], wishes) : exploreAll(wishes)) ? 0
                                                                                              : 1;
    } catch (std::exception const& error) {
        std::cerr << "interleavings: " << error.what() << std::endl;
        return 2;
    }
}
