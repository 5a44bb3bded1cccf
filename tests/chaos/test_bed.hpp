#pragma once

#include "chaos/report.hpp"

#include "support/broker.hpp"
#include "support/cut_proxy.hpp"
#include "support/test_client.hpp"
#include "support/timeout_factor.hpp"

#include <atomic>
#include <memory>
#include <vector>

namespace chaos {

/// An operation that has not ended by then never will: beyond the time-outs of all its parts.
constexpr std::chrono::seconds END_DEADLINE{90 * support::TIMEOUT_FACTOR};

/// The broker, and the proxies in front of it that cut connections.
struct TestBed {
    TestBed(std::uint64_t seedOfRun, Report& reportOfRun)
        : seed(seedOfRun), report(reportOfRun), broker(brokerOptions()) {}

    /// The port of a new proxy to the broker.
    int newProxy() {
        proxies.push_back(std::make_unique<support::CutProxy>(broker.port()));
        return proxies.back()->port();
    }
    /// A client over a proxy of its own.
    std::unique_ptr<mqtt::MqttClient> newClient(support::ClientOptions const& options = {}) {
        return support::testClient(broker.host(), newProxy(), options);
    }

    std::uint64_t const seed;
    Report& report;
    support::Broker broker;
    std::vector<std::unique_ptr<support::CutProxy>> proxies;
    std::atomic<bool> brokerIsKilled{false}; ///< the faults under way include kills of the broker

private:
    /// The broker drops nothing for a slow client, and does not log each packet.
    static support::BrokerOptions brokerOptions() {
        support::BrokerOptions options;
        options.extraLines = {"max_queued_messages 0", "log_type none", "log_type error",
                              "log_type warning"};
        return options;
    }
};

} // namespace chaos
