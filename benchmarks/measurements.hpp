#pragma once

#include "broker_process.hpp"
#include "options.hpp"
#include "party.hpp"

#include <functional>
#include <string>
#include <vector>

namespace bench {

/// One number of one run of one party.
struct Figure {
    std::string name;
    std::string unit;
    double value; ///< not a number: the party does not tell
};

struct Measurement {
    std::string name;
    /// Makes clients of the party, takes the figures (always the same ones in the same order)
    /// and leaves nothing behind.
    std::function<std::vector<Figure>(Party&, BrokerProcess const&)> run;
};

std::vector<Measurement> allMeasurements(Effort const& effort);

} // namespace bench
