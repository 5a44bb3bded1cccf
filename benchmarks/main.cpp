#include "broker_process.hpp"
#include "measurements.hpp"
#include "options.hpp"
#include "party.hpp"
#include "report.hpp"
#include "runner.hpp"

#include <mosquittopp.h>
#include <sched.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace {

int lastAllowedCpu() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        throw std::system_error(errno, std::generic_category(), "sched_getaffinity");
    }
    int last = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<std::size_t>(cpu), &allowed)) {
            last = cpu;
        }
    }
    return last;
}

/// Everything on one processor: spread over several, a round trip takes four times as long
/// or not, by luck. The broker and all threads inherit it.
int pin(int wanted) {
    int const cpu = wanted < 0 ? lastAllowedCpu() : wanted;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(cpu), &one);
    if (::sched_setaffinity(0, sizeof one, &one) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot use this CPU");
    }
    return cpu;
}

void runAll(bench::Options const& options) {
    auto const reference = bench::makeRawParty();
    auto const candidate = options.control ? bench::makeRawParty() : bench::makeOurParty();
    for (bench::BrokerProcess::Variant const variant : options.brokers) {
        bench::BrokerProcess const broker(variant);
        bench::printTableHead(bench::BrokerProcess::describe(variant), reference->name(),
                              candidate->name());
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
    bench::printConditions(options, pin(options.cpu));
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
