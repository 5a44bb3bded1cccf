#pragma once

#include "chaos/findings.hpp"

#include "support/broker.hpp"
#include "support/cut_proxy.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace chaos {

/// Where it all happens: the broker, the lines to it that get cut, and what everybody needs.
struct Place {
    explicit Place(std::uint64_t seedOfRun, Findings& findingsOfRun);

    /// A line of one's own to the broker.
    support::CutProxy const& newLine();

    std::uint64_t const seed;
    Findings& findings;
    support::Broker broker;
    std::vector<std::unique_ptr<support::CutProxy>> lines;
    std::atomic<bool> kills{false}; ///< the storm under way may kill the broker
};

} // namespace chaos
