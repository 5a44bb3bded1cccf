#pragma once

#include "measurements.hpp"
#include "results.hpp"

#include <memory>
#include <vector>

namespace bench {

/// Who is compared, and with whom.
struct Contest {
    std::vector<std::unique_ptr<Party>> references;
    std::unique_ptr<Party> candidate;
};

/// Ours beside the bare broker library and Paho, as far as it is there.
/// @param control the bare broker library in our place
Contest makeContest(bool control);

/// Runs the parties in turns, so that what disturbs the machine for a while disturbs all.
/// @return for each figure one comparison with each reference that tells it
std::vector<Comparison> compare(Measurement const& measurement, Contest const& contest,
                                BrokerProcess const& broker, unsigned repetitions);

} // namespace bench
