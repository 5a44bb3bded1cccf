#pragma once

#include "benchmark_client.hpp"
#include "program.hpp"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

/// How far the time base's estimate of a server's clock is from the truth after the first
/// synchronisation.
void measureTimeBase(Options const& options);

/// How much one repetition does.
struct Effort {
    std::uint64_t messages = 20000;          ///< in a throughput run; five times as many at QoS 0
    unsigned latencies = 1000;               ///< at most
    unsigned connections = 200;              ///< at most
    double longestSecondsForLatencies = 4.0; ///< ends the taking of latencies and connections
};

struct ClientMeasurement {
    std::string name;
    /// Makes clients of the library, measures, and leaves nothing behind.
    std::function<Figures(ClientLibrary const&, BenchmarkBroker const&)> run;
};

/// All but the next ones.
std::vector<ClientMeasurement> allMeasurements(Effort const& effort);
/// A choice of them, for encrypted connections.
std::vector<ClientMeasurement> measurementsOfEncryption(Effort const& effort);
/// The first 24 requests of each of many connections.
ClientMeasurement firstExchanges(Effort const& effort);

} // namespace bench
