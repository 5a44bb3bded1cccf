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

void runAll(bench::Options const& options, bench::Contest const& contest, bench::Results& results) {
    for (bench::BrokerProcess::Variant const variant : options.brokers) {
        bench::BrokerProcess const broker(variant);
        std::string const setting = bench::BrokerProcess::describe(variant);
        bench::printTableHead("Broker: " + setting);
        for (bench::Measurement const& measurement : bench::allMeasurements(options.effort)) {
            if (measurement.name.find(options.only) == std::string::npos) {
                continue;
            }
            for (auto const& row :
                 bench::compare(measurement, contest, broker, options.repetitions)) {
                bench::printRow(measurement.name, row);
                results.add(setting, measurement.name, row);
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
    bench::Results results(options.results, "client");
    auto const contest = bench::makeContest(options.control);
    bench::printConditions(bench::clientConditions(options, bench::pin(options.cpu), contest),
                           results);
    runAll(options, contest, results);
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
