#include "interleavings/run.hpp"

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
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <system_error>

namespace interleavings {

namespace {

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

[[noreturn]] void runInThisProcess(Scenario const& scenario, Plan const& plan) {
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
    scheduler.start(plan, sharedRecord());
    try {
        scenario.run();
    } catch (std::exception const& error) {
        scheduler.fail((std::string("throws ") + error.what()).c_str());
    }
    scheduler.succeed();
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
    return WIFEXITED(status) && WEXITSTATUS(status) == SUCCESS_STATUS ? "" : "ends the process";
}

/// The first word that is a file with a line, unless it is a file of the explorer; or nothing.
std::string placeIn(std::string const& description) {
    static std::set<std::string> const explorer{"allocations", "intercepted", "main",        "run",
                                                "scenario",    "scheduler",   "small_broker"};
    std::istringstream words(description);
    for (std::string word; words >> word;) {
        auto const dot = word.find('.');
        auto const type = word.substr(std::min(dot, word.size()), 5);
        if ((type == ".cpp:" || type == ".hpp:") && explorer.count(word.substr(0, dot)) == 0) {
            return word;
        }
    }
    return "";
}

/// File and line of a frame; empty when it belongs to the explorer or a system library.
std::string const& placeOf(void* frame) {
    static std::map<void*, std::string> places;
    auto const [entry, isNew] = places.try_emplace(frame);
    if (isNew) {
        entry->second = placeIn(support::describeFrame(frame));
    }
    return entry->second;
}

} // namespace

std::string run(Scenario const& scenario, Plan plan) {
    plan.explored = scenario.explored;
    auto& record = sharedRecord();
    record.failure[0] = '\0';
    record.choiceCount = record.eventCount = 0;
    auto const child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        runInThisProcess(scenario, plan);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return failureOf(record, status);
}

RunRecord const& lastRun() {
    return sharedRecord();
}

void printTrace() {
    std::cout << std::fixed << std::setprecision(6);
    for (std::size_t i = 0; i < lastRun().eventCount; ++i) {
        auto const& event = lastRun().events[i];
        std::cout << "    " << static_cast<double>(event.nanoseconds) * 1e-9 << " s, choice "
                  << event.choices << ": thread " << event.thread << ' ' << event.what;
        if (event.next >= 0) {
            std::cout << ", next thread " << event.next;
        }
        std::cout << "\n       ";
        for (int frame = 0; frame < event.stack.count; ++frame) {
            auto const& place = placeOf(event.stack.frames[static_cast<std::size_t>(frame)]);
            std::cout << (place.empty() ? "" : " ") << place;
        }
        std::cout << '\n';
    }
}

} // namespace interleavings
