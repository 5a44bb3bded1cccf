// Our client beside bare libmosquittopp and Paho, over a broker. Each repetition runs all of them
// one after the other, so that what disturbs the machine for a second disturbs all.

#include "benchmark_broker.hpp"
#include "benchmark_client.hpp"
#include "measurements.hpp"
#include "program.hpp"

#include <mosquittopp.h>

#include <memory>
#include <vector>

namespace {

using Libraries = std::vector<std::unique_ptr<bench::ClientLibrary>>;

Libraries makeLibraries(bench::Options const& options) {
    Libraries libraries;
    libraries.push_back(bench::rawLibrary());
    if (auto paho = bench::pahoLibrary()) {
        libraries.push_back(std::move(paho));
    }
    libraries.push_back(options.control ? bench::rawLibrary("ours") : bench::ourLibrary());
    return libraries;
}

void measure(bench::Measurement const& measurement, Libraries const& libraries,
             bench::BenchmarkBroker const& broker, int repetitions) {
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (auto const& library : libraries) {
            for (auto const& figure : measurement.run(*library, broker)) {
                bench::print({"clients", measurement.name, figure.name, figure.unit,
                              library->name(), broker.description(), repetition, figure.value});
            }
        }
    }
}

void run(bench::Options const& options) {
    bench::Effort const effort = options.quick ? bench::Effort{300, 20, 10, 1} : bench::Effort{};
    mosqpp::lib_init();
    bench::pinToOneProcessor();
    bench::printConditions("clients", options, options.control ? ", ours is raw" : "");
    Libraries libraries = makeLibraries(options);
    Libraries librariesForFirstExchanges = makeLibraries(options);
    librariesForFirstExchanges.push_back(bench::rawLibraryWithPromptAcknowledgements());
    for (auto const kind : bench::brokerKinds(options)) {
        bench::BenchmarkBroker const broker(kind);
        for (auto const& measurement : bench::allMeasurements(effort)) {
            bool const first = measurement.name == bench::FIRST_EXCHANGES;
            if (bench::isWanted(options, "clients", measurement.name)) {
                measure(measurement, first ? librariesForFirstExchanges : libraries, broker,
                        options.repetitions);
            }
        }
    }
    mosqpp::lib_cleanup();
}

} // namespace

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, 9, run);
}
