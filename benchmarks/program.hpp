#pragma once

#include <string>

namespace bench {

/// What every benchmark program takes from its command line.
struct Options {
    std::string only;     ///< part of "PROGRAM MEASUREMENT"; empty: everything
    int repetitions = 0;  ///< of each measurement
    bool quick = false;   ///< shows only that it works
    bool control = false; ///< libmosquittopp in the place of our client: shows the noise
    bool shipped = true;  ///< measure on a broker as shipped
    bool nodelay = true;  ///< measure on a broker with `set_tcp_nodelay true`
};

/// Ends the program with its usage when the command line is wrong.
Options parseOptions(int argc, char** argv, int defaultRepetitions);

/// One line of output, in JSON.
struct Result {
    std::string program;     ///< clients, idle, documents, ...
    std::string measurement; ///< what was done
    std::string figure;      ///< which number of it: throughput, p50, ...
    std::string unit;
    std::string library; ///< who did it: ours, raw, Paho, ...
    std::string broker;  ///< the broker's configuration; empty: none took part
    int repetition = 0;
    double value = 0;
};

void print(Result const& result);
/// Prints versions, machine and method, for the page that shows the figures.
void printConditions(std::string const& program, Options const& options, std::string const& more);

/// Whether `--only` asks for this measurement.
bool isWanted(Options const& options, std::string const& program, std::string const& measurement);

/// Puts this process, and all threads and processes that it starts later, on the last processor
/// that it may use. Over several processors a round trip takes up to four times as long, depending
/// on where the scheduler puts whom.
void pinToOneProcessor();

/// Calls `run` with the options. @return what main() returns; 1 after an exception, with its text
int runProgram(int argc, char** argv, int defaultRepetitions, void (*run)(Options const&));

} // namespace bench
