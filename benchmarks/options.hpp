#pragma once

#include "broker_process.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// How much is done in each repetition.
struct Effort {
    std::uint64_t messages = 20000; ///< per throughput run; five times as many at QoS 0
    unsigned window = 800;          ///< messages on their way at the same time, at most
    unsigned latencies = 1000;      ///< publications waited for, at most
    unsigned connections = 200;     ///< connections made, at most
    double seconds = 4;             ///< end of taking latencies and connections
};

struct Options {
    Effort effort;
    unsigned repetitions = 9;
    std::vector<BrokerProcess::Variant> brokers{BrokerProcess::Variant::SHIPPED,
                                                BrokerProcess::Variant::NODELAY};
    std::string results; ///< file that gets the figures, too
    std::string only;    ///< part of the names of the measurements to run
    int cpu = -1;        ///< negative: the last one we may use
    bool control = false;
    bool help = false;
};

/// @throws std::invalid_argument with a text for the user
Options parseOptions(std::vector<std::string> const& arguments);

extern char const* const USAGE;

} // namespace bench
