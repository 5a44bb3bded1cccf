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

void measureInTurns(Options const& options, Measurement const& measurement,
                    ClientLibraries const& libraries, BenchmarkBroker const& broker) {
    int const repetitions = repetitionsOf(options, "clients", measurement.name, 9);
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (auto const& library : libraries) {
            for (auto const& figure : measurement.run(*library, broker)) {
                print({"clients", measurement.name, figure.name, figure.unit, library->name,
                       broker.description, repetition, figure.value});
            }
        }
    }
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
            measureInTurns(options, measurement, libraries, broker);
        }
        libraries.push_back(rawLibraryWithPromptAcknowledgements());
        measureInTurns(options, firstExchanges(effort), libraries, broker);
        libraries.pop_back();
    }
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    mosqpp::lib_init();
    return bench::runProgram(argc, argv, bench::run);
}
