#include "measurements.hpp"
#include "resources.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace bench {
namespace {

/// What this process holds.
using Resources = std::array<double, 4>;
constexpr std::array<std::pair<char const*, char const*>, 4> NAMES_AND_UNITS{
    {{"threads", ""}, {"descriptors", ""}, {"heap", "KiB"}, {"resident memory", "KiB"}}};

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
    return {entriesOf("/proc/self/task"), entriesOf("/proc/self/fd"),
            static_cast<double>(heapInUse()) / 1024, residentKib()};
}

void measureHere(ClientLibrary const& library, int port, int repetition, unsigned clients) {
    // The first one brings what the process has only once.
    auto const first = library.makeClient(port);
    first->connect();
    Resources const before = resources();
    std::vector<std::unique_ptr<BenchmarkClient>> more(clients);
    for (auto& client : more) {
        client = library.makeClient(port);
        client->connect();
    }
    Resources const after = resources();
    for (std::size_t i = 0; i < NAMES_AND_UNITS.size(); ++i) {
        auto const& [name, unit] = NAMES_AND_UNITS[i];
        print({"idle", "one more client", name, unit, library.name, "", repetition,
               (after[i] - before[i]) / clients});
    }
}

/// In a process of its own, whose heap nobody has used before. This process has only one thread, so
/// that the child may do anything.
void measureInChild(ClientLibrary const& library, int port, int repetition, unsigned clients) {
    pid_t const child = ::fork();
    if (child == 0) {
        try {
            measureHere(library, port, repetition, clients);
            ::_exit(0);
        } catch (std::exception const& error) {
            std::fprintf(stderr, "%s: %s\n", library.name, error.what());
            ::_exit(1);
        }
    }
    int status = 1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error(std::string("no figures of ") + library.name);
    }
}

} // namespace

void measureIdleClients(Options const& options, ClientLibraries const& libraries) {
    int const repetitions = repetitionsOf(options, "idle", "one more client", 3);
    unsigned const clients = options.quick ? 4 : 32;
    BenchmarkBroker const broker(NODELAY);
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (auto const& library : libraries) {
            measureInChild(*library, broker.port(), repetition, clients);
        }
    }
}

} // namespace bench
