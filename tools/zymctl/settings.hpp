#pragma once

#include "console.hpp"
#include "exit_code.hpp"
#include "interruption.hpp"

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>
#include <zym/common/uuid.hpp>

#include <string>

class Arguments;

/// The options that every command has.
struct Settings {
    std::string host = "localhost";
    unsigned port = 0; ///< 0: the usual one
    std::string unixSocket;
    std::string user;
    std::string passwordFile;
    bool tls = false;
    std::string caFile;
    std::string caFolder;
    std::string certificateFile;
    std::string keyFile;
    std::string keyPasswordFile;
    std::string pskIdentity;
    std::string pskFile;
    std::string tlsVersion = "1.2";
    bool insecureSkipHostNameCheck = false;
    std::string identity;
    unsigned timeout = 5; ///< seconds
    bool json = false;

    void addTo(Arguments& arguments);

    bool usesTls() const;
    /// The host name, or the path of the unix socket.
    std::string const& address() const { return unixSocket.empty() ? host : unixSocket; }
    int portNumber() const;
    std::string broker() const; ///< address and port, for messages
    /// @throws CommandFailed a file cannot be read
    mqtt::ConnectionOptions connectionOptions() const;
    /// Who sends requests: as given, or else different in each run.
    zym::common::Uuid clientId() const;
    Clock::time_point deadline() const { return Clock::now() + std::chrono::seconds(timeout); }
};

/// A file's first line, or else the value of the environment variable.
std::string secret(std::string const& file, char const* variable);

/// Reads an identifier: a number, 22 or 36 characters. Empty: nil.
/// @throws CommandFailed
zym::common::Uuid identifier(std::string const& text);
zym::common::Uuid randomIdentifier();

/// What a command works with.
struct Context {
    Settings settings;
    Interruption interruption;
    Console console{interruption};
};

/// A connected client. Its destructor hands over what has been published.
struct Connection {
    /// @throws CommandFailed no connection, with the reason
    explicit Connection(Context& context);
    ~Connection();
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    mqtt::MqttClient client;

private:
    unsigned timeout_;
};

/// Why a client has no connection.
std::string reasonOf(mqtt::MqttClient const& client, mqtt::MqttClient::Error error,
                     Settings const& settings);

/// @throws CommandFailed unless the outcome is SUCCESS: wrong usage for what MQTT does not allow
void require(mqtt::MqttClient::Error error, std::string const& what);
