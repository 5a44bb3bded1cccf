#pragma once

// What the device and the panel need beside their task: their arguments, and lines of output.

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>

#include <iostream>
#include <map>
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
    broker.host = argc > 1 ? argv[1] : broker.host;
    broker.port = argc > 2 ? std::stoi(argv[2]) : broker.port;
    if (argc > 3) {
        std::string const folder = argv[3];
        auto& tls = broker.options.tls.emplace();
        tls.caFile = folder + "/ca.crt";
        tls.certificateFile = folder + '/' + program + ".crt";
        tls.keyFile = folder + '/' + program + ".key";
    }
    return broker;
}

/// @return whether the client is connected; if not, the reason is printed
inline bool connect(mqtt::MqttClient& client) {
    auto const result = client.connect("", -1, mqtt::MqttClient::COMMUNICATION_DELAY);
    if (result != mqtt::MqttClient::Error::SUCCESS) {
        std::cerr << "cannot connect: " << result << '\n' << client.lastFailure() << '\n';
    }
    return result == mqtt::MqttClient::Error::SUCCESS;
}

/// Writes a line with one call, since the client's worker thread and `main` both print.
inline void printLine(std::string const& line) {
    std::cout << line + '\n' << std::flush;
}

inline std::string textOf(conv::ComState state) {
    using conv::ComState;
    static std::map<ComState, std::string> const texts{
        {ComState::DISCONNECTED, "disconnected"},
        {ComState::CONNECTED, "connected"},
        {ComState::CONNECTION_LOST, "connection lost"},
        {ComState::CONNECTING, "connecting"}};
    auto const found = texts.find(state);
    return found == texts.end() ? "in a state without a name" : found->second;
}
