#include "program.hpp"

#include <getopt.h>
#include <mosquitto.h>
#include <sched.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace bench {
namespace {

constexpr char const* USAGE =
    "Prints what it measures as JSON, one object a line.\n"
    "  --only TEXT                  only measurements whose \"PROGRAM NAME\" contains TEXT\n"
    "  --repetitions N              how often each of them is repeated\n"
    "  --broker shipped|nodelay     only this configuration of the broker\n"
    "  --control                    libmosquittopp in the place of our client: shows the noise\n"
    "  --quick                      one short repetition: shows only that it works\n";

[[noreturn]] void endWithUsage(char const* program) {
    std::fprintf(stderr, "Usage: %s [options]\n%s", program, USAGE);
    std::exit(2);
}

std::string machine() {
    utsname name{};
    return ::uname(&name) == 0 ? name.machine : "unknown";
}

int lastUsableProcessor(cpu_set_t const& usable) {
    int last = 0;
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(static_cast<std::size_t>(processor), &usable)) {
            last = processor;
        }
    }
    return last;
}

#ifdef __OPTIMIZE__
constexpr char const* BUILD = "optimised";
#else
constexpr char const* BUILD = "NOT OPTIMISED";
#endif

} // namespace

Options parseOptions(int argc, char** argv, int defaultRepetitions) {
    constexpr option OPTIONS[] = {{"only", required_argument, nullptr, 'o'},
                                  {"repetitions", required_argument, nullptr, 'r'},
                                  {"broker", required_argument, nullptr, 'b'},
                                  {"control", no_argument, nullptr, 'c'},
                                  {"quick", no_argument, nullptr, 'q'},
                                  {nullptr, 0, nullptr, 0}};
    Options options;
    int repetitions = 0;
    for (int letter = 0; (letter = ::getopt_long(argc, argv, "", OPTIONS, nullptr)) != -1;) {
        std::string const value = optarg == nullptr ? "" : optarg;
        if (letter == 'o') {
            options.only = value;
        } else if (letter == 'r' && std::atoi(optarg) > 0) {
            repetitions = std::atoi(optarg);
        } else if (letter == 'b' && (value == "shipped" || value == "nodelay")) {
            options.shipped = value == "shipped";
            options.nodelay = value == "nodelay";
        } else if (letter == 'c') {
            options.control = true;
        } else if (letter == 'q') {
            options.quick = true;
        } else {
            endWithUsage(argv[0]);
        }
    }
    if (optind != argc) {
        endWithUsage(argv[0]);
    }
    options.repetitions = repetitions > 0 ? repetitions : options.quick ? 1 : defaultRepetitions;
    return options;
}

void print(Result const& result) {
    static std::string const machineName = machine();
    std::printf(R"({"program": "%s", "measurement": "%s", "figure": "%s", "library": "%s", )"
                R"("broker": "%s", "repetition": %d, "value": %.9g, "unit": "%s", )"
                R"("machine": "%s"})"
                "\n",
                result.program.c_str(), result.measurement.c_str(), result.figure.c_str(),
                result.library.c_str(), result.broker.c_str(), result.repetition, result.value,
                result.unit.c_str(), machineName.c_str());
    std::fflush(stdout);
}

void printConditions(std::string const& program, Options const& options, std::string const& more) {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosquitto_lib_version(&major, &minor, &revision);
    std::printf(R"({"program": "%s", "conditions": "%d repetition(s); libmosquittopp %d.%d.%d; )"
                R"(compiler %s, %s%s"})"
                "\n",
                program.c_str(), options.repetitions, major, minor, revision, __VERSION__, BUILD,
                more.c_str());
}

bool isWanted(Options const& options, std::string const& program, std::string const& measurement) {
    return (program + ' ' + measurement).find(options.only) != std::string::npos;
}

void pinToOneProcessor() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    if (::sched_getaffinity(0, sizeof processors, &processors) == 0) {
        int const last = lastUsableProcessor(processors);
        CPU_ZERO(&processors);
        CPU_SET(static_cast<std::size_t>(last), &processors);
        if (::sched_setaffinity(0, sizeof processors, &processors) == 0) {
            return;
        }
    }
    throw std::system_error(errno, std::generic_category(), "cannot choose a processor");
}

int runProgram(int argc, char** argv, int defaultRepetitions, void (*run)(Options const&)) {
    try {
        run(parseOptions(argc, argv, defaultRepetitions));
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}

} // namespace bench
