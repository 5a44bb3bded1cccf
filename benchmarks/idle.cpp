#include "measurements.hpp"
#include "resources.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace bench {
namespace {

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

/// What this process holds.
Figures resources() {
    return {{"threads", "", entriesOf("/proc/self/task")},
            {"descriptors", "", entriesOf("/proc/self/fd")},
            {"heap", "KiB", static_cast<double>(heapInUse()) / 1024},
            {"resident memory", "KiB", residentKib()}};
}

Figures measureOneMore(ClientLibrary const& library, std::size_t count) {
    BenchmarkBroker const broker(NODELAY);
    auto const first = library.makeClient(broker);
    first->connect();
    Figures const before = resources();
    std::vector<std::unique_ptr<BenchmarkClient>> more(count);
    for (auto& client : more) {
        client = library.makeClient(broker);
        client->connect();
    }
    Figures figures = resources();
    for (std::size_t i = 0; i < figures.size(); ++i) {
        figures[i].value = (figures[i].value - before[i].value) / static_cast<double>(count);
    }
    return figures;
}

} // namespace

void measureIdleClients(Options const& options, std::vector<ClientLibrary> const& libraries) {
    for (auto const& library : libraries) {
        if (library.name == options.idle) {
            measureInTurns(options, {"idle", "one more client", 1},
                           {{library.name, [&](int) {
                                 return measureOneMore(library, options.quick ? 4 : 32);
                             }}});
        }
    }
}

} // namespace bench
