#pragma once

#include "program.hpp"
#include "resources.hpp"

#include "support/broker.hpp"

#include <ctime>
#include <system_error>

namespace bench {

/// A broker that logs no more than one without any configuration does. The tests' broker would log
/// every packet.
class BenchmarkBroker {
public:
    explicit BenchmarkBroker(BrokerKind kind) : kind_(kind), broker_(optionsOf(kind)) {
        if (int const code = ::clock_getcpuclockid(broker_.pid(), &clock_); code != 0) {
            throw std::system_error(code, std::generic_category(), "the broker's processor time");
        }
    }

    int port() const { return broker_.port(); }
    /// Processor time used so far, in seconds.
    double cpuSeconds() const { return bench::cpuSeconds(clock_); }
    /// What the results call its configuration.
    char const* description() const {
        return kind_ == BrokerKind::NODELAY ? "set_tcp_nodelay true" : "as shipped";
    }

private:
    static support::BrokerOptions optionsOf(BrokerKind kind) {
        support::BrokerOptions options;
        options.nodelay = kind == BrokerKind::NODELAY;
        // `none` cancels what the tests' configuration says; the others are the broker's default.
        options.extraLines = {"log_type none", "log_type error", "log_type warning",
                              "log_type notice", "log_type information"};
        return options;
    }

    BrokerKind const kind_;
    support::Broker broker_;
    clockid_t clock_{};
};

} // namespace bench
