#include "interleavings/run.hpp"

#include "interleavings/synchronisation.hpp"
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
#include <cstdio>
#include <cstring>
#include <exception>
#include <iomanip>
#include <iterator>
#include <map>
#include <ostream>
#include <sstream>
#include <system_error>

namespace interleavings {

namespace {

/// Of real time: then it waits for something that the explorer does not know.
constexpr unsigned LONGEST_RUN_SECONDS = 30;

Journal& sharedJournal() {
    static Journal& journal = [&]() -> Journal& {
        void* const memory = mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
        return *static_cast<Journal*>(memory);
    }();
    return journal;
}

/// All threads of a run take turns: on one processor they need not wake another one.
void stayOnThisProcessor() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &processors);
    sched_setaffinity(0, sizeof processors, &processors);
}

std::string failureOf(Journal const& journal, int status) {
    if (journal.failure[0] != '\0') {
        return journal.failure.data();
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        return "waits for something that the explorer does not know";
    }
    if (WIFSIGNALED(status)) {
        return std::string("ends by a signal: ") + strsignal(WTERMSIG(status));
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && journal.ended ? "" : "ends the process";
}

/// Where a thread stands in the library or the scenario, not in the explorer.
class Places {
public:
    std::string describe(Place const& place, std::size_t most) {
        std::string text;
        for (int i = 0; i < place.count && most > 0; ++i) {
            auto const& line = lineOf(place.frames[static_cast<std::size_t>(i)]);
            if (line.empty()) {
                continue;
            }
            text += "\n        " + line;
            --most;
        }
        return text;
    }

private:
    /// Empty for a frame that is not ours.
    std::string const& lineOf(void* frame) {
        auto const [entry, isNew] = lines_.try_emplace(frame);
        if (isNew) {
            std::istringstream all(support::describeFrame(frame));
            for (std::string line; entry->second.empty() && std::getline(all, line);) {
                if (isOurs(line)) {
                    entry->second = shortened(line);
                }
            }
        }
        return entry->second;
    }

    static bool isOurs(std::string const& line) {
        constexpr char const* THEIRS[] = {
            "intercepted.cpp:", "main.cpp:",      "allocations.cpp:",     "run.cpp:",
            "scenario.cpp:",    "scheduler.cpp:", "synchronisation.cpp:", "wait.hpp:",
            "stage.hpp:"};
        auto const has = [&](char const* part) { return line.find(part) != std::string::npos; };
        return (has(".cpp:") || has(".hpp:"))
               && std::none_of(std::begin(THEIRS), std::end(THEIRS), has);
    }

    /// The function without what it takes, and the line.
    static std::string shortened(std::string const& line) {
        std::string const inlined = "(inlined by) ";
        auto const found = line.find(inlined);
        auto const text = found == std::string::npos ? line : line.substr(found + inlined.size());
        auto const place = text.rfind(" at ");
        return text.substr(0, std::min(text.find('('), place)) + text.substr(place);
    }

    std::map<void*, std::string> lines_;
};

void tellStory(Journal const& journal, std::ostream& out) {
    Places places;
    for (std::size_t i = 0; i < journal.switchCount; ++i) {
        auto const& event = journal.switches[i];
        out << "    " << std::fixed << std::setprecision(6)
            << static_cast<double>(event.nanoseconds) * 1e-9 << " s, choice " << event.choices
            << ": thread " << event.from << " " << event.reason << ", " << event.to << " goes on"
            << places.describe(event.place, 1) << "\n";
    }
    for (std::size_t i = 0; i < journal.waitingCount; ++i) {
        auto const& thread = journal.waiting[i];
        out << "    thread " << thread.thread << " " << thread.what;
        if (thread.holder >= 0) {
            out << " that thread " << thread.holder << " has";
        }
        out << places.describe(thread.place, 6) << "\n";
    }
}

} // namespace

Runner::Runner(Scenario const& scenario, bool mistaken)
    : scenario_(scenario), mistaken_(mistaken), journal_(sharedJournal()) {}

Outcome Runner::run(Plan plan) {
    plan.explored = scenario_.explored;
    journal_.clear();
    ++count_;
    auto const child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        act(plan);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return {failureOf(journal_, status),
            {journal_.choices.begin(),
             journal_.choices.begin() + static_cast<std::ptrdiff_t>(journal_.choiceCount)}};
}

Outcome Runner::tell(Plan plan, std::ostream& out) {
    plan.traced = true;
    auto outcome = run(std::move(plan));
    tellStory(journal_, out);
    return outcome;
}

void Runner::act(Plan const& plan) const {
    rlimit const noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    alarm(LONGEST_RUN_SECONDS);
    if (plan.traced) {
        for (int const signal : {SIGABRT, SIGBUS, SIGSEGV}) {
            std::signal(signal, [](int number) { Scheduler::instance().fail(strsignal(number)); });
        }
    } else {
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO); // the replay says it, too
    }
    stayOnThisProcessor();
    mallopt(M_PERTURB, 0xA5); // what is used after its end is to look like it
    support::refusesMemory = &Scene::Shortage::refusesMemory;
    auto& scheduler = Scheduler::instance();
    scheduler.setHolderOf(&holderOf);
    scheduler.start(plan, journal_);
    Scene const scene(plan.schedule.pause, mistaken_);
    try {
        scenario_.run(scene);
    } catch (std::exception const& error) {
        scheduler.fail((std::string("throws ") + error.what()).c_str());
    }
    scheduler.pass();
}

} // namespace interleavings
