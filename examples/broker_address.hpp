#pragma once

#include <mqtt/connection_options.hpp>

#include <string>

/// Where the broker is, and how to connect to it.
struct BrokerAddress {
    std::string host = "localhost";
    int port = 1883;
    mqtt::ConnectionOptions options;
};

/// The arguments of a program: host, port, and a folder with certificates if the broker uses TLS.
/// The folder has that of the authority, ca.crt, and a certificate with its key for each program.
inline BrokerAddress brokerFrom(int argc, char* argv[], std::string const& program) {
    BrokerAddress broker;
    if (argc > 1) {
        broker.host = argv[1];
    }
    if (argc > 2) {
        broker.port = std::stoi(argv[2]);
    }
    if (argc > 3) {
        std::string const folder = argv[3];
        auto& tls = broker.options.tls.emplace();
        tls.caFile = folder + "/ca.crt";
        tls.certificateFile = folder + '/' + program + ".crt";
        tls.keyFile = folder + '/' + program + ".key";
    }
    return broker;
}
