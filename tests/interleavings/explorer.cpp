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
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <iomanip>
#include <iostream>
#include <map>
#include <random>
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

/// Whether it reads like "file.cpp:12".
bool isSourceLine(std::string const& place) {
    return place.find(".cpp:") != std::string::npos || place.find(".hpp:") != std::string::npos;
}

bool isOfTheExplorer(std::string const& place) {
    constexpr std::array<char const*, 6> files{"allocations.", "explorer.", "intercepted.",
                                               "main.",        "scenario.", "scheduler."};
    return place.find("wait") != std::string::npos
           || std::any_of(files.begin(), files.end(),
                          [&](char const* file) { return place.rfind(file, 0) == 0; });
}

/// File and line of a frame; empty when it belongs to the explorer or a system library.
std::string const& placeOf(void* frame) {
    static std::map<void*, std::string> places;
    auto const [entry, isNew] = places.try_emplace(frame);
    std::istringstream lines(isNew ? support::describeFrame(frame) : "");
    for (std::string line; entry->second.empty() && std::getline(lines, line);) {
        auto const place = line.substr(line.rfind(' ') + 1);
        if (isSourceLine(place) && !isOfTheExplorer(place)) {
            entry->second = place;
        }
    }
    return entry->second;
}

void print(Event const& event) {
    std::cout << "    " << std::fixed << std::setprecision(6)
              << static_cast<double>(event.nanoseconds) * 1e-9 << " s, choice " << event.choices
              << ": thread " << event.thread << ' ' << event.what;
    if (event.otherThread >= 0) {
        std::cout << ", " << event.relation << " thread " << event.otherThread;
    }
    std::cout << "\n       ";
    for (int i = 0; i < event.stack.count; ++i) {
        auto const& place = placeOf(event.stack.frames[static_cast<std::size_t>(i)]);
        std::cout << (place.empty() ? "" : " ") << place;
    }
    std::cout << '\n';
}

} // namespace

Explorer::Explorer(Scenario const& scenario, Options const& options)
    : scenario_(scenario), options_(options), record_(sharedRecord()) {}

bool Explorer::explore() {
    auto const start = Clock::now();
    bool const failed = searchSystematically() || searchAtRandom();
    print(start);
    return failed == options_.mistaken;
}

bool Explorer::replay(Schedule const& schedule) {
    Plan plan;
    plan.schedule = schedule;
    plan.traced = true;
    auto const failure = run(plan);
    std::for_each(record_.events.begin(), record_.events.begin() + record_.eventCount,
                  [](Event const& event) { interleavings::print(event); });
    std::cout << scenario_.name << ": " << (failure.empty() ? "passes" : failure) << std::endl;
    return failure.empty();
}

bool Explorer::searchSystematically() {
    ++systematic_;
    if (fails(Plan())) {
        return true;
    }
    std::vector<Schedule> schedules;
    for (std::uint32_t choice = 0; choice < record_.choiceCount; ++choice) {
        for (std::uint8_t way = 1; way < record_.choices[choice].ways; ++way) {
            schedules.push_back({{choice, way}});
        }
    }
    complete_ = schedules.size() <= options_.schedules / 2;
    if (!complete_) {
        std::shuffle(schedules.begin(), schedules.end(), std::mt19937(options_.seed));
        schedules.resize(options_.schedules / 2);
    }
    return std::any_of(schedules.begin(), schedules.end(), [&](Schedule const& schedule) {
        Plan plan;
        plan.schedule = schedule;
        ++systematic_;
        return fails(plan);
    });
}

bool Explorer::searchAtRandom() {
    auto const end = Clock::now() + options_.seconds;
    for (; systematic_ + random_ < options_.schedules || Clock::now() < end; ++random_) {
        Plan plan;
        plan.seed = options_.seed + static_cast<unsigned>(random_);
        if (fails(plan)) {
            return true;
        }
    }
    return false;
}

bool Explorer::fails(Plan const& plan) {
    failure_ = run(plan);
    if (failure_.empty()) {
        return false;
    }
    runsUntilFailure_ = runs_;
    schedule_ = scheduleOf(record_);
    deviations_ = schedule_.size();
    reduce();
    return true;
}

/// Leaves out one deviation after the other, from the last one on, as long as the run fails.
void Explorer::reduce() {
    for (auto i = schedule_.size(); i > 0; --i) {
        Plan plan;
        plan.schedule = schedule_;
        plan.schedule.erase(plan.schedule.begin() + static_cast<std::ptrdiff_t>(i) - 1);
        auto const failure = run(plan);
        // Later deviations may concern choices that the run no longer makes.
        auto const made = scheduleOf(record_);
        if (!failure.empty() && made.size() < schedule_.size()) {
            failure_ = failure;
            schedule_ = made;
            i = std::min(i, made.size() + 1);
        }
    }
}

void Explorer::print(Clock::time_point start) const {
    std::chrono::duration<double> const seconds = Clock::now() - start;
    std::cout << scenario_.name << ": " << systematic_ << " systematic ("
              << (complete_ ? "all" : "some") << " with one deviation), " << random_ << " random, "
              << static_cast<int>(static_cast<double>(runs_) / seconds.count()) << " a second"
              << std::endl;
    if (!failure_.empty()) {
        std::cout << "  FAILS after " << runsUntilFailure_ << " schedules: " << failure_ << "\n  "
                  << deviations_ << " deviations, of which " << schedule_.size()
                  << " are needed:\n    interleavings --replay \"" << textOf(schedule_) << "\" "
                  << scenario_.name << std::endl;
    }
}

std::string Explorer::run(Plan plan) {
    plan.explored = scenario_.explored;
    plan.mistaken = options_.mistaken;
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
    return failureOf(record_, status);
}

void Explorer::runInThisProcess(Plan const& plan) const {
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

} // namespace interleavings
