// Our client beside bare libmosquittopp and Paho, over a broker. Each repetition runs all of them
// one after the other, so that what disturbs the machine for a second disturbs all.

#include "measurements.hpp"
#include "mqtt/mosquittopp.hpp"

#include <memory>
#include <vector>

namespace bench {
namespace {

using ClientLibraries = std::vector<std::unique_ptr<ClientLibrary>>;

ClientLibraries makeLibraries(Options const& options) {
    ClientLibraries libraries;
    libraries.push_back(rawLibrary());
    if (auto paho = pahoLibrary()) {
        libraries.push_back(std::move(paho));
    }
    libraries.push_back(options.control ? rawLibrary("ours") : ourLibrary());
    return libraries;
}

/// @param program "clients" or "tls"
void measureInTurns(char const* program, Options const& options, Measurement const& measurement,
                    ClientLibraries const& libraries, BenchmarkBroker const& broker) {
    int const repetitions = repetitionsOf(options, program, measurement.name, 9);
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (auto const& library : libraries) {
            for (auto const& figure : measurement.run(*library, broker)) {
                print({program, measurement.name, figure.name, figure.unit, library->name,
                       broker.description, repetition, figure.value});
            }
        }
    }
}

/// Only beside bare libmosquittopp: its TLS is what both have.
void measureEncrypted(Options const& options, char const* configuration, Effort const& effort) {
    BenchmarkBroker const broker(configuration, true);
    brokersAuthority = broker.authority();
    ClientLibraries libraries;
    libraries.push_back(rawLibrary());
    libraries.push_back(options.control ? rawLibrary("ours") : ourLibrary());
    for (auto const& measurement : measurementsOfEncryption(effort)) {
        measureInTurns("tls", options, measurement, libraries, broker);
    }
    brokersAuthority.clear();
}

void run(Options const& options) {
    ClientLibraries libraries = makeLibraries(options);
    if (!options.idle.empty()) {
        for (auto const& library : libraries) {
            if (library->name == options.idle) {
                measureIdleClients(options, *library);
            }
        }
        return;
    }
    measureTimeBase(options);
    pinToOneProcessor();
    Effort const effort = options.quick ? Effort{300, 20, 10, 1} : Effort{};
    for (auto const* const configuration : options.brokers) {
        BenchmarkBroker const broker(configuration);
        for (auto const& measurement : allMeasurements(effort)) {
            measureInTurns("clients", options, measurement, libraries, broker);
        }
        libraries.push_back(rawLibraryWithPromptAcknowledgements());
        measureInTurns("clients", options, firstExchanges(effort), libraries, broker);
        libraries.pop_back();
        measureEncrypted(options, configuration, effort);
    }
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    mosqpp::lib_init();
    return bench::runProgram(argc, argv, bench::run);
}
