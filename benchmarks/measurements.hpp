#pragma once

#include "benchmark_broker.hpp"
#include "benchmark_client.hpp"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

/// How much one repetition does.
struct Effort {
    std::uint64_t messages = 20000;          ///< in a throughput run; five times as many at QoS 0
    unsigned latencies = 1000;               ///< at most
    unsigned connections = 200;              ///< at most
    double longestSecondsForLatencies = 4.0; ///< ends the taking of latencies and connections
};

struct Figure {
    std::string name;
    std::string unit;
    double value;
};

struct Measurement {
    std::string name;
    /// Makes clients of the library, measures, and leaves nothing behind.
    std::function<std::vector<Figure>(ClientLibrary const&, BenchmarkBroker const&)> run;
};

/// The one measurement that also shows the bare library with prompt acknowledgements.
constexpr char const* FIRST_EXCHANGES = "first-exchanges";

std::vector<Measurement> allMeasurements(Effort const& effort);

} // namespace bench
