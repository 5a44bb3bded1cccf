#pragma once

#include "program.hpp"
#include "resources.hpp"

#include "mqtt/test/broker.hpp"

#include <ctime>
#include <string>
#include <system_error>

namespace bench {

/// A broker that logs no more than one without any configuration does. The tests' broker would log
/// every packet.
class BenchmarkBroker : public mqtt::test::Broker {
public:
    explicit BenchmarkBroker(char const* configuration, bool encrypted = false)
        : mqtt::test::Broker(options(std::string(configuration) == NODELAY, encrypted)),
          description(configuration) {
        if (int const code = ::clock_getcpuclockid(pid(), &clock_); code != 0) {
            throw std::system_error(code, std::generic_category(), "the broker's processor time");
        }
    }

    /// Processor time used so far, in seconds.
    double cpuSeconds() const { return bench::cpuSeconds(clock_); }

    char const* const description;

private:
    static mqtt::test::BrokerOptions options(bool nodelay, bool encrypted) {
        // `none` cancels what the tests' configuration says; the others are the broker's default.
        return {nodelay,
                false,
                false,
                {"log_type none", "log_type error", "log_type warning", "log_type notice",
                 "log_type information"},
                encrypted};
    }

    clockid_t clock_{};
};

} // namespace bench
