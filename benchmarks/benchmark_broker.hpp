#pragma once

#include "clocks.hpp"
#include "program.hpp"

#include "support/broker.hpp"

#include <ctime>
#include <string>
#include <vector>

namespace bench {

enum class BrokerKind {
    SHIPPED, ///< nothing but its port and its access is configured
    NODELAY  ///< with `set_tcp_nodelay true`
};

/// Those that the options ask for.
std::vector<BrokerKind> brokerKinds(Options const& options);

/// A broker that logs no more than one without any configuration does. The tests' broker would log
/// every packet.
class BenchmarkBroker {
public:
    explicit BenchmarkBroker(BrokerKind kind);

    int port() const { return broker_.port(); }
    /// Processor time used so far, in seconds.
    double cpuSeconds() const { return bench::cpuSeconds(clock_); }
    /// What the results call this configuration.
    std::string const& description() const { return description_; }

private:
    std::string const description_;
    support::Broker broker_;
    clockid_t clock_{};
};

} // namespace bench
