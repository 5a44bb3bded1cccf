#include "interleavings/search.hpp"

#include <algorithm>
#include <random>
#include <utility>

namespace interleavings {

namespace {

constexpr std::ptrdiff_t MOST_PREEMPTIONS = 2;

using Clock = std::chrono::steady_clock;

std::ptrdiff_t preemptions(std::vector<Choice> const& choices) {
    return std::count_if(choices.begin(), choices.end(),
                         [](auto const& choice) { return choice.taken != 0 && choice.preempts; });
}

} // namespace

Search::Search(Runner& runner, bool pauses, Budget const& budget)
    : runner_(runner), pauses_(pauses), budget_(budget) {}

Found Search::run() {
    if (!searchSystematically())
        searchAtRandom();
    return found_;
}

/// Level by level, each with one more deviation. Of a level that is too large, some are taken by
/// chance, or only the beginning of the scenario would be seen.
bool Search::searchSystematically() {
    std::mt19937 random(budget_.seed);
    Schedules level(1);
    if (pauses_) {
        level.resize(2);
        level[1].pause = true;
    }
    for (std::size_t deviations = 0; !level.empty(); ++deviations) {
        auto const end = std::max(budget_.schedules / 2, found_.systematic);
        auto const room = deviations < 2 ? budget_.schedules : end - found_.systematic;
        bool const fits = level.size() <= room;
        if (!fits) {
            std::shuffle(level.begin(), level.end(), random);
            level.resize(room);
        }
        Schedules next;
        if (tryLevel(level, next))
            return true;
        if (!fits)
            return false;
        found_.complete = deviations;
        level = std::move(next);
    }
    found_.exhausted = true;
    return false;
}

bool Search::tryLevel(Schedules const& level, Schedules& next) {
    for (auto const& schedule : level) {
        Plan plan;
        plan.schedule = schedule;
        std::vector<Choice> choices;
        ++found_.systematic;
        if (isTried(plan, choices))
            return true;
        addSuccessors(schedule, choices, next);
    }
    return false;
}

void Search::addSuccessors(Schedule const& schedule, std::vector<Choice> const& choices,
                           Schedules& next) const {
    // More than any budget has room for: which ones are tried is left to chance as it is.
    constexpr std::size_t MOST = 2'000'000;
    bool const mayPreempt = preemptions(choices) < MOST_PREEMPTIONS;
    auto const first = schedule.deviations.empty() ? 0 : schedule.deviations.back().at + 1;
    for (std::size_t at = first; at < choices.size() && next.size() < MOST; ++at) {
        if (choices[at].preempts && !mayPreempt)
            continue;
        for (std::uint8_t way = 1; way < choices[at].among; ++way) {
            next.push_back(schedule);
            next.back().deviations.push_back({static_cast<std::uint32_t>(at), way});
        }
    }
}

bool Search::searchAtRandom() {
    auto const end = Clock::now() + budget_.seconds;
    auto const goesOn = [&] {
        return found_.systematic + found_.random < budget_.schedules || Clock::now() < end;
    };
    for (; goesOn(); ++found_.random) {
        Plan plan;
        plan.seed = budget_.seed + static_cast<unsigned>(found_.random);
        plan.schedule.pause = pauses_ && found_.random % 2 != 0;
        std::vector<Choice> choices;
        if (isTried(plan, choices))
            return true;
    }
    return false;
}

/// @return whether it has failed
bool Search::isTried(Plan const& plan, std::vector<Choice>& choices) {
    auto outcome = runner_.run(plan);
    choices = std::move(outcome.choices);
    if (outcome.failure.empty())
        return false;
    auto const after = runner_.count();
    auto const schedule = Schedule::of(plan.schedule.pause, choices);
    found_.finding = shrunk(schedule, outcome.failure);
    found_.finding->after = after;
    found_.finding->deviations = schedule.deviations.size();
    return true;
}

/// Leaves out one deviation after the other, as long as it fails, however it does.
Finding Search::shrunk(Schedule schedule, std::string failure) {
    for (bool smaller = true; smaller;) {
        smaller = false;
        for (std::size_t i = schedule.deviations.size(); i-- > 0;) {
            Plan plan;
            plan.schedule = schedule;
            plan.schedule.deviations.erase(plan.schedule.deviations.begin()
                                           + static_cast<std::ptrdiff_t>(i));
            auto const outcome = runner_.run(plan);
            if (outcome.failure.empty())
                continue;
            failure = outcome.failure;
            // What it was meant to be, not what became of it: later deviations may find no choice.
            schedule = Schedule::of(plan.schedule.pause, outcome.choices);
            smaller = true;
            break;
        }
    }
    Finding finding;
    finding.failure = std::move(failure);
    finding.schedule = std::move(schedule);
    return finding;
}

} // namespace interleavings
