#pragma once

#include <malloc.h>

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

namespace bench {

/// The broker's configuration, as the results call it: nothing but its port and its access, or also
/// `set_tcp_nodelay true`.
constexpr char const* SHIPPED = "as shipped";
constexpr char const* NODELAY = "set_tcp_nodelay true";

/// What every benchmark program takes from its command line.
struct Options {
    std::string only;              ///< part of "PROGRAM MEASUREMENT"; empty: everything
    std::string idle;              ///< a library: measure only what its idle clients hold
    int repetitions = 0;           ///< of each measurement; 0: as many as the measurement wants
    bool quick = false;            ///< shows only that it works
    double secondsInProcess = 0.1; ///< how long an action is timed that needs no broker
    bool control = false;          ///< libmosquittopp in the place of our client: shows the noise
    std::vector<char const*> brokers{SHIPPED, NODELAY};
};

struct Measurement {
    char const* program; ///< the group: clients, idle, documents, ...
    std::string name;
    int usualRepetitions = 9;
    char const* broker = ""; ///< the broker's configuration; empty: none takes part
};

struct Figure {
    std::string name; ///< throughput, p50, ...
    char const* unit;
    double value;
};
using Figures = std::vector<Figure>;

/// One of those that are compared.
struct Side {
    char const* library; ///< ours, raw, Paho, ...
    /// Measures once.
    std::function<Figures(int repetition)> measure;
};

/// Whether `--only` leaves it in.
bool isWanted(Options const& options, Measurement const& measurement);
/// Measures all sides in each repetition, one after the other, so that what disturbs the machine
/// for a second disturbs all. Prints a line of JSON for each figure.
void measureInTurns(Options const& options, Measurement const& measurement,
                    std::vector<Side> const& sides);

/// Puts this process, and all threads and processes that it starts later, on the last processor
/// that it may use. Over several processors a round trip takes up to four times as long, depending
/// on where the scheduler puts whom.
void pinToOneProcessor();

/// Prints the versions that the figures depend on, and calls `run` with the options.
/// @return what main() returns
int runProgram(int argc, char** argv, void (*run)(Options const&));

/// The processor time that a process or thread has used so far, in seconds.
inline double cpuSeconds(clockid_t clock) {
    timespec now{};
    if (::clock_gettime(clock, &now) != 0) {
        throw std::system_error(errno, std::generic_category(), "clock_gettime");
    }
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Takes the result of every action that is timed, so that the compiler cannot leave it out.
inline std::size_t volatile resultOfTimedAction = 0;

/// Calls an action for so many seconds.
/// @return the processor time of one call in nanoseconds. No action waits, and processor time does
///         not count what other processes do.
template <class Action>
double nanosecondsPerCall(Action&& action, double seconds) {
    constexpr unsigned CALLS_PER_CLOCK_READ = 64;
    double passed = 0;
    double calls = 0;
    double const start = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    while (passed < seconds) {
        for (unsigned i = 0; i < CALLS_PER_CLOCK_READ; ++i) {
            resultOfTimedAction = action();
        }
        calls += CALLS_PER_CLOCK_READ;
        passed = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - start;
    }
    return passed / calls * 1e9;
}

/// Bytes of heap that this process uses.
inline std::size_t heapInUse() {
    auto const info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

} // namespace bench
