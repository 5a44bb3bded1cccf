#include "program.hpp"

#include <getopt.h>
#include <mosquitto.h>
#include <sched.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace bench {
namespace {

constexpr char const* USAGE =
    "\nPrints what it measures as JSON, one object a line.\n"
    "  --only TEXT                  only measurements whose \"PROGRAM NAME\" contains TEXT\n"
    "  --idle raw|ours|Paho         only what this library's idle clients hold\n"
    "  --repetitions N              how often each of them is repeated\n"
    "  --broker shipped|nodelay     only this configuration of the broker\n"
    "  --control                    libmosquittopp in the place of our client: shows the noise\n"
    "  --quick                      one short repetition: shows only that it works\n";

/// @throws std::invalid_argument with the usage when the command line is wrong
Options parseOptions(int argc, char** argv) {
    constexpr option OPTIONS[] = {{"only", required_argument, nullptr, 'o'},
                                  {"idle", required_argument, nullptr, 'i'},
                                  {"repetitions", required_argument, nullptr, 'r'},
                                  {"broker", required_argument, nullptr, 'b'},
                                  {"control", no_argument, nullptr, 'c'},
                                  {"quick", no_argument, nullptr, 'q'},
                                  {nullptr, 0, nullptr, 0}};
    Options options;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread only
    for (int letter = 0; (letter = ::getopt_long(argc, argv, "", OPTIONS, nullptr)) != -1;) {
        std::string const value = optarg == nullptr ? "" : optarg;
        if (letter == 'o') {
            options.only = value;
        } else if (letter == 'i') {
            options.idle = value;
        } else if (letter == 'r' && std::atoi(value.c_str()) > 0) {
            options.repetitions = std::atoi(value.c_str());
        } else if (letter == 'b' && (value == "shipped" || value == "nodelay")) {
            options.brokers = {value == "shipped" ? SHIPPED : NODELAY};
        } else if (letter == 'c') {
            options.control = true;
        } else if (letter == 'q') {
            options.quick = true;
            options.secondsInProcess = 0.005;
        } else {
            optind = 0;
            break;
        }
    }
    if (optind != argc) {
        throw std::invalid_argument(USAGE);
    }
    return options;
}

void printConditions() {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosquitto_lib_version(&major, &minor, &revision);
    std::printf(R"({"conditions": "libmosquittopp %d.%d.%d, compiler %s"})"
                "\n",
                major, minor, revision, __VERSION__);
}

} // namespace

void print(Result const& result) {
    std::printf(R"({"program": "%s", "measurement": "%s", "figure": "%s", "library": "%s", )"
                R"("broker": "%s", "repetition": %d, "value": %.9g, "unit": "%s"})"
                "\n",
                result.program, result.measurement.c_str(), result.figure.c_str(), result.library,
                result.broker, result.repetition, result.value, result.unit);
    std::fflush(stdout);
}

int repetitionsOf(Options const& options, std::string const& program,
                  std::string const& measurement, int usual) {
    if ((program + ' ' + measurement).find(options.only) == std::string::npos) {
        return 0;
    }
    return options.repetitions > 0 ? options.repetitions : options.quick ? 1 : usual;
}

void pinToOneProcessor() {
    cpu_set_t processors;
    int result = ::sched_getaffinity(0, sizeof processors, &processors);
    std::size_t last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &processors)) {
        --last;
    }
    CPU_ZERO(&processors);
    CPU_SET(last, &processors);
    result = result == 0 ? ::sched_setaffinity(0, sizeof processors, &processors) : result;
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot choose a processor");
    }
}

int runProgram(int argc, char** argv, void (*run)(Options const&)) {
    try {
        Options const options = parseOptions(argc, argv);
        printConditions();
        run(options);
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}

} // namespace bench
