#include "benchmark_broker.hpp"

#include <system_error>

namespace bench {
namespace {

support::BrokerOptions brokerOptions(BrokerKind kind) {
    support::BrokerOptions options;
    options.nodelay = kind == BrokerKind::NODELAY;
    // `none` takes back what the tests' configuration says; the others are the broker's default.
    options.extraLines = {"log_type none", "log_type error", "log_type warning", "log_type notice",
                          "log_type information"};
    return options;
}

} // namespace

std::vector<BrokerKind> brokerKinds(Options const& options) {
    std::vector<BrokerKind> kinds;
    if (options.shipped) {
        kinds.push_back(BrokerKind::SHIPPED);
    }
    if (options.nodelay) {
        kinds.push_back(BrokerKind::NODELAY);
    }
    return kinds;
}

BenchmarkBroker::BenchmarkBroker(BrokerKind kind)
    : description_(kind == BrokerKind::NODELAY ? "set_tcp_nodelay true" : "as shipped"),
      broker_(brokerOptions(kind)) {
    if (int const code = ::clock_getcpuclockid(broker_.pid(), &clock_); code != 0) {
        throw std::system_error(code, std::generic_category(), "the broker's processor time");
    }
}

} // namespace bench
