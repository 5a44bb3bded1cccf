#pragma once

#include "mqtt/test/broker.hpp"
#include "mqtt/test/cut_proxy.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/timeout_factor.hpp"

#include <atomic>
#include <cstdint>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace chaos {

/// An operation that has not ended by then never will: beyond the time-outs of all its parts.
constexpr std::chrono::seconds END_DEADLINE{90 * support::TIMEOUT_FACTOR};

/// What a run counts, and the violations of what must hold.
class Report {
public:
    void check(bool holds, std::string const& otherwise) {
        if (!holds) {
            std::lock_guard<std::mutex> const lock(mutex_);
            ++violations_;
            // At once, so that the log shows when it happened.
            std::cout << "VIOLATION: " << otherwise << std::endl;
        }
    }
    void count(std::string const& name, std::uint64_t n = 1) {
        std::lock_guard<std::mutex> const lock(mutex_);
        counts_[name] += n;
    }

    // When the run is over.
    std::uint64_t violations() const { return violations_; }
    /// One line per count, by name.
    void print() const {
        for (auto const& [name, n] : counts_) {
            std::cout << "  " << name << ": " << n << '\n';
        }
        std::cout << "  VIOLATIONS: " << violations_ << '\n';
    }

private:
    std::mutex mutex_;
    std::map<std::string, std::uint64_t> counts_;
    std::uint64_t violations_ = 0;
};

/// Random numbers from the seed of the run and the name of the worker that draws them: they do not
/// depend on how fast other workers are.
class Random {
public:
    Random(std::uint64_t seed, std::string const& name)
        : engine_(seed * 0x9e3779b97f4a7c15ULL + std::hash<std::string>()(name)) {}

    /// From `low` to `high`, both included.
    int between(int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(engine_);
    }
    /// True with this probability.
    bool percent(int probability) { return between(1, 100) <= probability; }
    template <class Container>
    auto& oneOf(Container& all) {
        return all[static_cast<std::size_t>(between(0, static_cast<int>(all.size()) - 1))];
    }

private:
    std::mt19937_64 engine_;
};

/// The broker, and the proxies in front of it that cut connections.
struct TestBed {
    TestBed(std::uint64_t seedOfRun, Report& reportOfRun)
        : seed(seedOfRun), report(reportOfRun), broker(brokerOptions()) {}

    /// The port of a new proxy to the broker.
    int newProxy() {
        proxies.push_back(std::make_unique<mqtt::test::CutProxy>(broker.port()));
        return proxies.back()->port();
    }
    /// A client over a proxy of its own.
    std::unique_ptr<mqtt::MqttClient> newClient(mqtt::test::ClientOptions options = {}) {
        options.connection = broker.connectionOptions();
        return mqtt::test::testClient(broker.host(), newProxy(), options);
    }

    std::uint64_t const seed;
    Report& report;
    mqtt::test::Broker broker;
    std::vector<std::unique_ptr<mqtt::test::CutProxy>> proxies;
    std::atomic<bool> brokerIsKilled{false}; ///< the faults under way include kills of the broker

private:
    /// The broker drops nothing for a slow client, and does not log each packet.
    static mqtt::test::BrokerOptions brokerOptions() {
        mqtt::test::BrokerOptions options;
        options.extraLines = {"max_queued_messages 0", "log_type none", "log_type error",
                              "log_type warning"};
        return options;
    }
};

} // namespace chaos
