#include "measurements.hpp"
#include "resources.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {
namespace {

constexpr unsigned MORE_CLIENTS = 32;
constexpr double KIB = 1024;

/// What this process holds.
struct Resources {
    double heapKib;
    double residentKib;
    double threads;
    double descriptors;
};

double residentKib() {
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    while (file >> word && word != "Rss:") {
    }
    double value = 0;
    if (!(file >> value)) {
        throw std::runtime_error("/proc/self/smaps_rollup does not say the resident memory");
    }
    return value;
}

double entriesOf(char const* folder) {
    return static_cast<double>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

Resources resources() {
    return {static_cast<double>(heapInUse()) / KIB, residentKib(), entriesOf("/proc/self/task"),
            entriesOf("/proc/self/fd")};
}

void measureHere(ClientLibrary const& library, int port, int repetition) {
    Resources const none = resources();
    auto const first = library.makeClient(port);
    first->connect();
    Resources const one = resources();
    std::vector<std::unique_ptr<BenchmarkClient>> more(MORE_CLIENTS);
    for (auto& client : more) {
        client = library.makeClient(port);
        client->connect();
    }
    Resources const all = resources();
    auto const print = [&](char const* figure, char const* unit, double value) {
        bench::print({"idle", "idle", figure, unit, library.name(), "", repetition, value});
    };
    print("threads of the only one", "", one.threads - none.threads);
    print("descriptors of the only one", "", one.descriptors - none.descriptors);
    print("threads of one more", "", (all.threads - one.threads) / MORE_CLIENTS);
    print("descriptors of one more", "", (all.descriptors - one.descriptors) / MORE_CLIENTS);
    print("heap of one more", "KiB", (all.heapKib - one.heapKib) / MORE_CLIENTS);
    print("resident memory of one more", "KiB", (all.residentKib - one.residentKib) / MORE_CLIENTS);
}

/// In a process of its own, whose heap nobody has used before. This process has only one thread, so
/// that the child may do anything.
void measureInChild(ClientLibrary const& library, int port, int repetition) {
    pid_t const child = ::fork();
    if (child == 0) {
        try {
            measureHere(library, port, repetition);
            ::_exit(0);
        } catch (std::exception const& error) {
            std::fprintf(stderr, "%s: %s\n", library.name(), error.what());
            ::_exit(1);
        }
    }
    int status = 1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error(std::string("no figures of ") + library.name());
    }
}

} // namespace

void measureIdleClients(Options const& options, ClientLibraries const& libraries) {
    int const repetitions = repetitionsOf(options, "idle", "idle", 3);
    BenchmarkBroker const broker(BrokerKind::NODELAY);
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (auto const& library : libraries) {
            measureInChild(*library, broker.port(), repetition);
        }
    }
}

} // namespace bench
