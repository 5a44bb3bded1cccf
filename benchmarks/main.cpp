#include "broker_process.hpp"
#include "measurements.hpp"
#include "options.hpp"
#include "party.hpp"
#include "pinning.hpp"
#include "report.hpp"
#include "runner.hpp"

#include <mosquittopp.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

void runAll(bench::Options const& options) {
    auto const reference = bench::makeRawParty();
    auto const candidate = options.control ? bench::makeRawParty() : bench::makeOurParty();
    for (bench::BrokerProcess::Variant const variant : options.brokers) {
        bench::BrokerProcess const broker(variant);
        bench::printTableHead(std::string("Broker: ") + bench::BrokerProcess::describe(variant),
                              reference->name(), candidate->name());
        for (bench::Measurement const& measurement : bench::allMeasurements(options.effort)) {
            if (measurement.name.find(options.only) != std::string::npos) {
                bench::printRows(measurement.name,
                                 bench::compare(measurement, *reference, *candidate, broker,
                                                options.repetitions));
            }
        }
    }
}

int run(std::vector<std::string> const& arguments) {
    bench::Options const options = bench::parseOptions(arguments);
    if (options.help) {
        std::fputs(bench::USAGE, stdout);
        return 0;
    }
    mosqpp::lib_init();
    bench::printConditions(options, bench::pin(options.cpu));
    runAll(options);
    mosqpp::lib_cleanup();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run({argv + 1, argv + argc});
    } catch (std::invalid_argument const& error) {
        std::fprintf(stderr, "%s\n\n%s", error.what(), bench::USAGE);
        return 2;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "bench-client: %s\n", error.what());
        return 1;
    }
}
