#include "interleavings/explorer.hpp"

#include "support/allocations.hpp"
#include "support/stack_dump.hpp"

#include <fcntl.h>
#include <malloc.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <iomanip>
#include <map>
#include <ostream>
#include <random>
#include <regex>
#include <sstream>
#include <system_error>
#include <utility>

namespace interleavings {

namespace {

using Clock = std::chrono::steady_clock;

/// Real time. A run that takes longer waits for something that the explorer does not intercept.
constexpr unsigned MAX_RUN_SECONDS = 30;

RunRecord& sharedRecord() {
    static void* const memory =
        mmap(nullptr, sizeof(RunRecord), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return *static_cast<RunRecord*>(memory);
}

/// Only one thread runs at a time: on one processor a switch is fastest.
void stayOnThisProcessor() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &processors);
    sched_setaffinity(0, sizeof processors, &processors);
}

std::string failureOf(RunRecord const& record, int status) {
    if (record.failure[0] != '\0') {
        return record.failure.data();
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        return "waits for something that the explorer does not intercept";
    }
    if (WIFSIGNALED(status)) {
        return std::string("ends by a signal: ") + strsignal(WTERMSIG(status));
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && record.completed ? ""
                                                                             : "ends the process";
}

/// File and line of a frame; empty when it belongs to the explorer or a system library.
std::string const& placeOf(void* frame) {
    static std::map<void*, std::string> places;
    auto const [entry, isNew] = places.try_emplace(frame);
    std::istringstream lines(isNew ? support::describeFrame(frame) : "");
    for (std::string line; entry->second.empty() && std::getline(lines, line);) {
        auto const place = line.substr(line.rfind(' ') + 1);
        bool const isExplorers = std::regex_search(
            place,
            std::regex("^(allocations|explorer|intercepted|main|scenario|scheduler)[.]|wait"));
        if (std::regex_search(place, std::regex("[.][ch]pp:")) && !isExplorers) {
            entry->second = place;
        }
    }
    return entry->second;
}

void print(Event const& event, std::ostream& out) {
    out << "    " << std::fixed << std::setprecision(6)
        << static_cast<double>(event.nanoseconds) * 1e-9 << " s, choice " << event.choices
        << ": thread " << event.thread << ' ' << event.what;
    if (event.otherThread >= 0) {
        out << ", " << event.relation << " thread " << event.otherThread;
    }
    out << "\n       ";
    for (int i = 0; i < event.stack.count; ++i) {
        auto const& place = placeOf(event.stack.frames[static_cast<std::size_t>(i)]);
        out << (place.empty() ? "" : " ") << place;
    }
    out << '\n';
}

} // namespace

Runner::Runner(Scenario const& scenario, bool mistaken)
    : scenario_(scenario), mistaken_(mistaken), record_(sharedRecord()) {}

RunResult Runner::run(Plan plan) {
    plan.explored = scenario_.explored;
    plan.mistaken = mistaken_;
    record_.completed = false;
    record_.failure[0] = '\0';
    record_.choiceCount = record_.eventCount = 0;
    ++runs_;
    auto const child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        runInThisProcess(plan);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    auto const* const choices = record_.choices.data();
    return {failureOf(record_, status), {choices, choices + record_.choiceCount}};
}

RunResult Runner::runTraced(Plan plan, std::ostream& out) {
    plan.traced = true;
    auto result = run(std::move(plan));
    for (std::size_t i = 0; i < record_.eventCount; ++i) {
        print(record_.events[i], out);
    }
    return result;
}

void Runner::runInThisProcess(Plan const& plan) const {
    rlimit const noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    alarm(MAX_RUN_SECONDS);
    if (plan.traced) {
        for (int const signal : {SIGABRT, SIGBUS, SIGSEGV}) {
            std::signal(signal, [](int number) { Scheduler::instance().fail(strsignal(number)); });
        }
    } else {
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO); // a replay shows it
    }
    stayOnThisProcessor();
    mallopt(M_PERTURB, 0xA5); // overwrites freed memory, so that its use is noticed
    support::refusesMemory = &MemoryMayFail::refuses;
    auto& scheduler = Scheduler::instance();
    scheduler.start(plan, record_);
    try {
        scenario_.run();
    } catch (std::exception const& error) {
        scheduler.fail((std::string("throws ") + error.what()).c_str());
    }
    scheduler.succeed();
}

Search::Search(Runner& runner, Budget const& budget) : runner_(runner), budget_(budget) {}

SearchResult Search::run() {
    if (!searchSystematically()) {
        searchAtRandom();
    }
    return result_;
}

bool Search::searchSystematically() {
    ++result_.systematic;
    if (fails(Plan())) {
        return true;
    }
    std::vector<Schedule> schedules;
    for (std::uint32_t choice = 0; choice < choices_.size(); ++choice) {
        for (std::uint8_t way = 1; way < choices_[choice].ways; ++way) {
            schedules.push_back({{choice, way}});
        }
    }
    result_.complete = schedules.size() <= budget_.schedules / 2;
    if (!result_.complete) {
        std::shuffle(schedules.begin(), schedules.end(), std::mt19937(budget_.seed));
        schedules.resize(budget_.schedules / 2);
    }
    return std::any_of(schedules.begin(), schedules.end(), [&](Schedule const& schedule) {
        Plan plan;
        plan.schedule = schedule;
        ++result_.systematic;
        return fails(plan);
    });
}

bool Search::searchAtRandom() {
    auto const end = Clock::now() + budget_.seconds;
    for (; result_.systematic + result_.random < budget_.schedules || Clock::now() < end;
         ++result_.random) {
        Plan plan;
        plan.seed = budget_.seed + static_cast<unsigned>(result_.random);
        if (fails(plan)) {
            return true;
        }
    }
    return false;
}

bool Search::fails(Plan const& plan) {
    auto result = runner_.run(plan);
    choices_ = std::move(result.choices);
    if (result.failure.empty()) {
        return false;
    }
    auto const schedule = scheduleOf(choices_);
    result_.failure = {result.failure, schedule, runner_.runs(), schedule.size()};
    reduce(*result_.failure);
    return true;
}

/// Leaves out one deviation after the other, from the last one on, as long as the run fails.
void Search::reduce(Failure& failure) {
    for (auto i = failure.schedule.size(); i > 0; --i) {
        Plan plan;
        plan.schedule = failure.schedule;
        plan.schedule.erase(plan.schedule.begin() + static_cast<std::ptrdiff_t>(i) - 1);
        auto const result = runner_.run(plan);
        // Later deviations may concern choices that the run no longer makes.
        auto const made = scheduleOf(result.choices);
        if (!result.failure.empty() && made.size() < failure.schedule.size()) {
            failure.text = result.failure;
            failure.schedule = made;
            i = std::min(i, made.size() + 1);
        }
    }
}

} // namespace interleavings
