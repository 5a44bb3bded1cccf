#pragma once

#include "session.hpp"

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>
#include <zym/common/uuid.hpp>

#include <functional>
#include <string>
#include <vector>

/// What the command line says.
struct Settings {
    // For every command; the table in main.cpp has their meaning.
    std::string host = "localhost";
    unsigned port = 0; ///< 0: the usual one
    std::string unixSocket, user, passwordFile;
    bool tls = false, insecureSkipHostNameCheck = false;
    std::string caFile, caFolder, certificateFile, keyFile, keyPasswordFile;
    std::string pskIdentity, pskFile, tlsVersion = "1.2";
    std::string identity;
    unsigned timeout = 5; ///< seconds
    bool json = false;

    // For some commands.
    std::string topic; ///< also a pattern, or the base of a service
    std::string value, service, server, subPath, boundTopic, kindOfCheck;
    std::vector<std::string> expected;
    unsigned qos = 2, code = 1;
    bool watch = false, notRetained = false;
    unsigned count = 0;        ///< 0: without limit
    unsigned seconds = 0;      ///< 0: without limit
    unsigned cleanSeconds = 1; ///< how long to wait for retained values
    unsigned maxPayload = 16U << 20U;

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
    Console console{interruption};

    ExitCode interruptedOr(ExitCode code) const {
        return interruption.requested() ? ExitCode::INTERRUPTED : code;
    }
};

/// A connected client. Its destructor hands over what has been published.
struct Connection {
    /// @throws CommandFailed no connection, with the reason
    explicit Connection(Context& context);
    ~Connection() { client.disconnect(timeout_); }
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    mqtt::MqttClient client;

private:
    unsigned timeout_;
};

/// @throws CommandFailed unless the outcome is SUCCESS: wrong usage for what MQTT does not allow
void require(mqtt::MqttClient::Error error, std::string const& what);

/// Gets the messages of a topic beside those that the library itself reads there. Make it before
/// the object that reads them: it is called first.
class TopicReader final : private mqtt::MqttClient::Subscriber {
public:
    using Function = std::function<void(mqtt::Topic const& topic, std::string const& payload)>;

    /// @param function called on the worker thread
    /// @throws CommandFailed as `require`
    TopicReader(mqtt::MqttClient& client, mqtt::Topic const& topic, Function function)
        : client_(client), function_(std::move(function)) {
        require(client_.subscribe(topic, this, 0), "cannot subscribe to " + topic.text());
    }
    ~TopicReader() override { client_.release(this); }
    TopicReader(TopicReader const&) = delete;
    TopicReader& operator=(TopicReader const&) = delete;

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& topic, std::string const& payload) override {
        function_(topic, payload);
    }

    mqtt::MqttClient& client_;
    Function const function_;
};
