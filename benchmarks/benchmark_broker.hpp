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
class BenchmarkBroker {
public:
    explicit BenchmarkBroker(char const* configuration, bool encrypted = false)
        : description(configuration),
          broker_(options(std::string(configuration) == NODELAY, encrypted)) {
        if (int const code = ::clock_getcpuclockid(broker_.pid(), &clock_); code != 0) {
            throw std::system_error(code, std::generic_category(), "the broker's processor time");
        }
    }

    int port() const { return broker_.port(); }
    /// Of an encrypted one; a file.
    std::string authority() const { return broker_.authority(); }
    /// Processor time used so far, in seconds.
    double cpuSeconds() const { return bench::cpuSeconds(clock_); }

    char const* const description;

private:
    static mqtt::test::BrokerOptions options(bool nodelay, bool encrypted) {
        mqtt::test::BrokerOptions options;
        options.nodelay = nodelay;
        options.encrypted = encrypted;
        // `none` cancels what the tests' configuration says; the others are the broker's default.
        options.extraLines = {"log_type none", "log_type error", "log_type warning",
                              "log_type notice", "log_type information"};
        return options;
    }

    mqtt::test::Broker broker_;
    clockid_t clock_{};
};

} // namespace bench
