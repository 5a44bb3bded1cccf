#include "chaos/place.hpp"

namespace chaos {

namespace {

/// The broker drops nothing for who is slow, and writes no line per packet: an hour makes many.
support::BrokerOptions options() {
    support::BrokerOptions options;
    options.extraLines = {"max_queued_messages 0", "log_type none", "log_type error",
                          "log_type warning"};
    return options;
}

} // namespace

Place::Place(std::uint64_t seedOfRun, Findings& findingsOfRun)
    : seed(seedOfRun), findings(findingsOfRun), broker(options()) {}

support::CutProxy const& Place::newLine() {
    lines.push_back(std::make_unique<support::CutProxy>(broker.port()));
    return *lines.back();
}

} // namespace chaos
