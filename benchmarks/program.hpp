#pragma once

#include <string>
#include <vector>

namespace bench {

/// The broker's configuration, as the results call it: nothing but its port and its access, or also
/// `set_tcp_nodelay true`.
constexpr char const* SHIPPED = "as shipped";
constexpr char const* NODELAY = "set_tcp_nodelay true";

/// What every benchmark program takes from its command line.
struct Options {
    std::string only;              ///< part of "PROGRAM MEASUREMENT"; empty: everything
    int repetitions = 0;           ///< of each measurement; 0: as many as the measurement wants
    bool quick = false;            ///< shows only that it works
    double secondsInProcess = 0.1; ///< how long an action is timed that needs no broker
    bool control = false;          ///< libmosquittopp in the place of our client: shows the noise
    std::vector<char const*> brokers{SHIPPED, NODELAY};
};

/// One line of output, in JSON.
struct Result {
    char const* program;     ///< the group: clients, idle, documents, ...
    std::string measurement; ///< what was done
    std::string figure;      ///< which number of it: throughput, p50, ...
    char const* unit;
    char const* library; ///< who did it: ours, raw, Paho, ...
    char const* broker;  ///< the broker's configuration; empty: none took part
    int repetition = 0;
    double value = 0;
};

void print(Result const& result);
/// How often a measurement is repeated; 0 where `--only` asks for others.
int repetitionsOf(Options const& options, std::string const& program,
                  std::string const& measurement, int usual);

/// Puts this process, and all threads and processes that it starts later, on the last processor
/// that it may use. Over several processors a round trip takes up to four times as long, depending
/// on where the scheduler puts whom.
void pinToOneProcessor();

/// Prints the versions that the figures depend on, and calls `run` with the options.
/// @return what main() returns
int runProgram(int argc, char** argv, void (*run)(Options const&));

} // namespace bench
