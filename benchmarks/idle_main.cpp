// What a connected client that does nothing holds: memory, threads, descriptors. Each party has
// a process of its own, and so a heap in which nobody was before.

#include "broker_process.hpp"
#include "heap.hpp"
#include "pinning.hpp"
#include "report.hpp"
#include "runner.hpp"
#include "simple_options.hpp"

#include <mosquittopp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr char const* USAGE =
    "bench-idle [--quick] [--results FILE]\n"
    "Compares what a connected client holds with libmosquittopp and Paho C++.\n";

constexpr unsigned MORE = 32;
constexpr double KIB = 1024;

/// What this process holds.
struct Holding {
    double heap;
    double resident;
    double threads;
    double descriptors;
};

/// In KiB.
double resident() {
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    while (file >> word && word != "Rss:") {
    }
    double value = 0;
    if (!(file >> value)) {
        throw std::runtime_error("/proc/self/smaps_rollup does not tell the resident memory");
    }
    return value;
}

double entriesOf(char const* folder) {
    return static_cast<double>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

Holding holding() {
    return {static_cast<double>(bench::heapInUse()) / KIB, resident(), entriesOf("/proc/self/task"),
            entriesOf("/proc/self/fd")};
}

/// Nothing but numbers: they go through a pipe.
using Numbers = std::array<double, 6>;

std::unique_ptr<bench::Caller> connected(bench::Party& party, int port) {
    auto caller = party.makeCaller(port);
    caller->connect();
    return caller;
}

Numbers measureHere(bench::Party& party, int port) {
    mosqpp::lib_init();
    Holding const none = holding();
    auto const first = connected(party, port);
    Holding const one = holding();
    std::vector<std::unique_ptr<bench::Caller>> more(MORE);
    for (auto& caller : more) {
        caller = connected(party, port);
    }
    Holding const all = holding();
    return {one.threads - none.threads,         one.descriptors - none.descriptors,
            (all.threads - one.threads) / MORE, (all.descriptors - one.descriptors) / MORE,
            (all.heap - one.heap) / MORE,       (all.resident - one.resident) / MORE};
}

/// @return never: what the process has been given does not end twice
[[noreturn]] void measureInChild(bench::Party& party, int port, int output) {
    try {
        Numbers const numbers = measureHere(party, port);
        ::_exit(::write(output, numbers.data(), sizeof numbers) == sizeof numbers ? 0 : 1);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", party.name(), error.what());
    }
    ::_exit(1);
}

/// This process has no other threads, so that a child may do anything.
Numbers measure(bench::Party& party, int port) {
    int ends[2] = {};
    if (::pipe(ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    pid_t const child = ::fork();
    if (child == 0) {
        measureInChild(party, port, ends[1]);
    }
    ::close(ends[1]);
    Numbers numbers{};
    bool const complete = ::read(ends[0], numbers.data(), sizeof numbers) == sizeof numbers;
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    if (!complete) {
        throw std::runtime_error(std::string("no figures of ") + party.name());
    }
    return numbers;
}

std::vector<bench::Figure> idle(bench::Party& party, bench::BrokerProcess const& broker) {
    Numbers const numbers = measure(party, broker.port());
    return {{"threads of the only one", "", numbers[0]},
            {"descriptors of the only one", "", numbers[1]},
            {"threads of one more", "", numbers[2]},
            {"descriptors of one more", "", numbers[3]},
            {"heap of one more", "KiB", numbers[4]},
            {"resident memory of one more", "KiB", numbers[5]}};
}

int run(bench::SimpleOptions const& options) {
    unsigned const repetitions = options.quick ? 1 : 9;
    bench::Results results(options.results, "idle");
    auto const contest = bench::makeContest(false);
    bench::pin(-1);
    bench::BrokerProcess const broker(bench::BrokerProcess::Variant::NODELAY);
    bench::printTableHead("A client that is connected and does nothing");
    for (auto const& row : bench::compare({"idle", idle}, contest, broker, repetitions)) {
        bench::printRow("idle", row);
        results.add("", "idle", row);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, USAGE, run);
}
