#pragma once

#include "session.hpp"

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// Who the two sides are, and whether the connection is encrypted. Of `mqtt::Tls` the files and
/// flags are options.
struct Security : mqtt::Tls {
    std::string user, passwordFile, keyPasswordFile;
    std::string pskIdentity, pskFile, tlsVersion = "1.2";
    bool tls = false;

    bool usesTls() const;
};

/// What the command line says.
struct Settings : Security {
    // For every command; the table in main.cpp has their meaning.
    std::string host = "localhost";
    std::uint16_t port = 0; ///< 0: the usual one
    std::string unixSocket, identity;
    unsigned timeout = 5; ///< seconds
    bool json = false;

    // For some commands.
    std::string topic; ///< also a pattern, or the base of a service
    std::string value, service, server, subPath, boundTopic, kindOfCheck;
    std::vector<std::string> expected;
    unsigned qos = 2;
    std::uint8_t code = 1;
    bool watch = false, notRetained = false;
    unsigned count = 0;        ///< 0: without limit
    unsigned seconds = 0;      ///< 0: without limit
    unsigned cleanSeconds = 1; ///< how long to wait for retained values
    unsigned maxPayload = 16U << 20U;

    /// The host name, or the path of the unix socket.
    std::string const& address() const { return unixSocket.empty() ? host : unixSocket; }
    int portNumber() const;
    std::string broker() const; ///< address and port, for messages
    /// @throws CommandFailed a file cannot be read
    mqtt::ConnectionOptions connectionOptions() const;
    /// Who sends requests: as given, or else different in each run.
    zym::common::Uuid clientId() const;
    Clock::time_point deadline() const { return Clock::now() + std::chrono::seconds(timeout); }
    /// When a command ends that runs for `seconds`.
    Clock::time_point end() const;
};

/// Reads an identifier: a number, 22 or 36 characters. Empty: nil.
/// @throws CommandFailed
zym::common::Uuid identifier(std::string const& text);
zym::common::Uuid randomIdentifier();

/// What a command works with.
struct Context {
    Settings settings;
    Interruption interruption;
    Console console{interruption, settings.json};

    ExitCode interruptedOr(ExitCode code) const {
        return interruption.requested() ? ExitCode::INTERRUPTED : code;
    }
};

/// @throws CommandFailed unless the outcome is SUCCESS: wrong usage for what MQTT does not allow
void require(mqtt::MqttClient::Error error, std::string const& what);

struct Message {
    mqtt::Topic topic;
    std::string payload;
};

/// A connected client, and the messages of the topics that it has subscribed to. Its destructor
/// hands over what has been published.
class Connection final : private mqtt::MqttClient::Subscriber {
public:
    /// @throws CommandFailed no connection, with the reason
    explicit Connection(Context& context);
    ~Connection() override;
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    /// @throws CommandFailed as `require`
    void subscribe(mqtt::Topic const& topic);
    /// Takes one message after the other, until the function returns true for one.
    /// @return false: not until the deadline, or interrupted
    bool read(Clock::time_point deadline,
              std::function<bool(Message const& message)> const& isLast);

private:
    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override;
    bool take(Message& message);

    Context& context_;
    std::mutex mutex_;
    std::deque<Message> messages_; ///< that have not been read

public:
    mqtt::MqttClient client; ///< its worker uses the other members
};
