#include "interleavings/search.hpp"

#include <algorithm>
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
    : runner_(runner), pauses_(pauses), budget_(budget), random_(budget.seed) {}

Found Search::run() {
    if (!searchSystematically()) {
        searchAtRandom();
    }
    return found_;
}

bool Search::searchSystematically() {
    Level level;
    level.schedules.resize(1);
    if (pauses_) {
        level.schedules.resize(2);
        level.schedules[1].pause = true;
    }
    level.seen = level.schedules.size();
    for (std::size_t deviations = 0; level.seen != 0; ++deviations) {
        // With one deviation all are tried, if that is possible at all.
        bool const fits = deviations < 2 && level.seen + found_.systematic <= budget_.schedules;
        auto const end = fits ? budget_.schedules : budget_.schedules / 2;
        auto const room = end - std::min(end, found_.systematic);
        bool const all = level.seen <= std::min(room, level.schedules.size());
        if (!all) {
            std::shuffle(level.schedules.begin(), level.schedules.end(), random_);
            level.schedules.resize(std::min(room, level.schedules.size()));
        }
        Level next;
        if (tryLevel(level.schedules, next)) {
            return true;
        }
        if (!all) {
            return false;
        }
        found_.complete = deviations;
        level = std::move(next);
    }
    found_.exhausted = true;
    return false;
}

bool Search::tryLevel(Schedules const& level, Level& next) {
    for (auto const& schedule : level) {
        Plan plan;
        plan.schedule = schedule;
        std::vector<Choice> choices;
        ++found_.systematic;
        if (isTried(plan, choices)) {
            return true;
        }
        addSuccessors(schedule, choices, next);
    }
    return false;
}

void Search::addSuccessors(Schedule const& schedule, std::vector<Choice> const& choices,
                           Level& next) {
    bool const mayPreempt = preemptions(choices) < MOST_PREEMPTIONS;
    auto const first = schedule.deviations.empty() ? 0 : schedule.deviations.back().at + 1;
    for (std::size_t at = first; at < choices.size(); ++at) {
        if (choices[at].preempts && !mayPreempt) {
            continue;
        }
        for (std::uint8_t way = 1; way < choices[at].among; ++way) {
            auto longer = schedule;
            longer.deviations.push_back({static_cast<std::uint32_t>(at), way});
            add(std::move(longer), next);
        }
    }
}

/// All have the same chance to stay.
void Search::add(Schedule schedule, Level& level) {
    ++level.seen;
    if (level.schedules.size() < budget_.schedules) {
        level.schedules.push_back(std::move(schedule));
        return;
    }
    auto const place = random_() % level.seen;
    if (place < level.schedules.size()) {
        level.schedules[place] = std::move(schedule);
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
        if (isTried(plan, choices)) {
            return true;
        }
    }
    return false;
}

/// @return whether it has failed
bool Search::isTried(Plan const& plan, std::vector<Choice>& choices) {
    auto outcome = runner_.run(plan);
    choices = std::move(outcome.choices);
    if (outcome.failure.empty()) {
        return false;
    }
    auto const after = runner_.count();
    auto const schedule = Schedule::of(plan.schedule.pause, choices);
    found_.finding = shrunk(schedule, outcome.failure);
    found_.finding->after = after;
    return true;
}

/// Leaves out deviations, many at once and then one by one, as long as it fails, however it does.
Finding Search::shrunk(Schedule schedule, std::string failure) {
    Finding finding;
    finding.deviations = schedule.deviations.size();
    for (auto part = finding.deviations; part > 0;) {
        part = std::min(part, schedule.deviations.size());
        if (!shrink(schedule, part, failure)) {
            part /= 2;
        }
    }
    finding.failure = std::move(failure);
    finding.schedule = std::move(schedule);
    return finding;
}

bool Search::shrink(Schedule& schedule, std::size_t part, std::string& failure) {
    auto const size = schedule.deviations.size();
    for (std::size_t end = size; end >= part && part > 0; --end) {
        Plan plan;
        plan.schedule = schedule;
        auto const first =
            plan.schedule.deviations.begin() + static_cast<std::ptrdiff_t>(end - part);
        plan.schedule.deviations.erase(first, first + static_cast<std::ptrdiff_t>(part));
        auto const outcome = runner_.run(plan);
        // What became of it: later deviations may not have found their choice any more.
        auto const actual = Schedule::of(schedule.pause, outcome.choices);
        if (outcome.failure.empty() || actual.deviations.size() >= size) {
            continue;
        }
        failure = outcome.failure;
        schedule = actual;
        return true;
    }
    return false;
}

} // namespace interleavings
