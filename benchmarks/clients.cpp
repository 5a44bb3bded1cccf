// Our client beside bare libmosquittopp and Paho, over a broker.

#include "measurements.hpp"
#include "mqtt/mosquittopp.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {
namespace {

using ClientLibraries = std::vector<ClientLibrary>;

/// @param program "clients" or "tls"
void measureLibraries(char const* program, Options const& options,
                      ClientMeasurement const& measurement, ClientLibraries const& libraries,
                      BenchmarkBroker const& broker) {
    std::vector<Side> sides;
    for (auto const& library : libraries) {
        sides.push_back({library.name, [&](int) { return measurement.run(library, broker); }});
    }
    measureInTurns(options, {program, measurement.name, 9, broker.description}, sides);
}

// Idle clients

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

/// What a connected client holds that does nothing. The first of many brings what the process has
/// only once and is left out. To be called in a fresh process.
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

void measureIdleClients(Options const& options, ClientLibraries const& libraries) {
    for (auto const& library : libraries) {
        auto const measure = [&](int) { return measureOneMore(library, options.quick ? 4 : 32); };
        if (library.name == options.idle) {
            measureInTurns(options, {"idle", "one more client", 1}, {{library.name, measure}});
        }
    }
}

void run(Options const& options) {
    // Over TLS only beside bare libmosquittopp: its TLS is what both have.
    ClientLibraries const encrypted{rawLibrary(),
                                    options.control ? rawLibrary("ours") : ourLibrary()};
    ClientLibraries libraries = encrypted;
    if (auto const paho = pahoLibrary()) {
        libraries.insert(libraries.begin() + 1, *paho);
    }
    if (!options.idle.empty()) {
        measureIdleClients(options, libraries);
        return;
    }
    measureTimeBase(options);
    pinToOneProcessor();
    Effort const effort = options.quick ? Effort{300, 20, 10, 1} : Effort{};
    for (auto const* const configuration : options.brokers) {
        BenchmarkBroker const broker(configuration);
        for (auto const& measurement : allMeasurements(effort)) {
            measureLibraries("clients", options, measurement, libraries, broker);
        }
        libraries.push_back(rawLibraryWithPromptAcknowledgements());
        measureLibraries("clients", options, firstExchanges(effort), libraries, broker);
        libraries.pop_back();
        BenchmarkBroker const encryptedBroker(configuration, true);
        for (auto const& measurement : measurementsOfEncryption(effort)) {
            measureLibraries("tls", options, measurement, encrypted, encryptedBroker);
        }
    }
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    mosqpp::lib_init();
    return bench::runProgram(argc, argv, bench::run);
}
