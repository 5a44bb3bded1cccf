// Our client beside bare libmosquittopp and Paho, over a broker.

#include "measurements.hpp"
#include "mqtt/mosquittopp.hpp"

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
