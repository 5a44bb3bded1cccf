#include "program.hpp"

#include <mosquitto.h>
#include <sched.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
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

/// @throws std::exception when the command line is wrong
Options parseOptions(std::vector<std::string> const& words) {
    Options options;
    for (std::size_t i = 0; i < words.size(); ++i) {
        auto const& word = words[i];
        if (word == "--control") {
            options.control = true;
        } else if (word == "--quick") {
            options.quick = true;
            options.secondsInProcess = 0.005;
        } else if (word == "--only") {
            options.only = words.at(++i);
        } else if (word == "--idle") {
            options.idle = words.at(++i);
        } else if (word == "--repetitions") {
            options.repetitions = std::stoi(words.at(++i));
        } else if (word == "--broker") {
            options.brokers = {words.at(++i) == "nodelay" ? NODELAY : SHIPPED};
        } else {
            throw std::invalid_argument(USAGE);
        }
    }
    return options;
}

void printConditions() {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosquitto_lib_version(&major, &minor, &revision);
    std::printf("{\"conditions\": \"libmosquittopp %d.%d.%d, compiler %s\"}\n", major, minor,
                revision, __VERSION__);
}

void print(Measurement const& measurement, char const* library, int repetition,
           Figure const& figure) {
    std::printf(R"({"program": "%s", "measurement": "%s", "figure": "%s", "library": "%s", )"
                R"("broker": "%s", "repetition": %d, "value": %.9g, "unit": "%s"})"
                "\n",
                measurement.program, measurement.name.c_str(), figure.name.c_str(), library,
                measurement.broker, repetition, figure.value, figure.unit);
    std::fflush(stdout);
}

} // namespace

bool isWanted(Options const& options, Measurement const& measurement) {
    auto const text = measurement.program + (' ' + measurement.name);
    return text.find(options.only) != std::string::npos;
}

void measureInTurns(Options const& options, Measurement const& measurement,
                    std::vector<Side> const& sides) {
    int const usual = options.quick ? 1 : measurement.usualRepetitions;
    int const repetitions = options.repetitions > 0 ? options.repetitions : usual;
    for (int i = 0; i < repetitions && isWanted(options, measurement); ++i) {
        for (auto const& side : sides) {
            for (auto const& figure : side.measure(i)) {
                print(measurement, side.library, i, figure);
            }
        }
    }
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
        Options const options = parseOptions({argv + 1, argv + argc});
        printConditions();
        run(options);
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}

} // namespace bench
