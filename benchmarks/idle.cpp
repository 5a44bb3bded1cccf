#include "measurements.hpp"
#include "resources.hpp"

#include <array>
#include <cstddef>
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

} // namespace

void measureIdleClients(Options const& options, ClientLibrary const& library) {
    BenchmarkBroker const broker(NODELAY);
    auto const first = library.makeClient(broker.port());
    first->connect();
    Resources const before = resources();
    std::vector<std::unique_ptr<BenchmarkClient>> more(options.quick ? 4 : 32);
    for (auto& client : more) {
        client = library.makeClient(broker.port());
        client->connect();
    }
    Resources const after = resources();
    for (std::size_t i = 0; i < NAMES_AND_UNITS.size(); ++i) {
        auto const& [name, unit] = NAMES_AND_UNITS[i];
        print({"idle", "one more client", name, unit, library.name, "", 0,
               (after[i] - before[i]) / static_cast<double>(more.size())});
    }
}

} // namespace bench
