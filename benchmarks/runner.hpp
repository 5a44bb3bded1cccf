#pragma once

#include "measurements.hpp"
#include "statistics.hpp"

#include <string>
#include <vector>

namespace bench {

/// One figure over all repetitions.
struct Comparison {
    std::string name;
    std::string unit;
    Summary reference;
    Summary candidate;
    Summary ratio; ///< candidate to reference, formed inside each repetition
};

/// Runs the parties in turns, so that what disturbs the machine for a while disturbs both.
std::vector<Comparison> compare(Measurement const& measurement, Party& reference, Party& candidate,
                                BrokerProcess const& broker, unsigned repetitions);

} // namespace bench
