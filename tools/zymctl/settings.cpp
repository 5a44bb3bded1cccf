#include "settings.hpp"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

using mqtt::MqttClient;
using zym::common::Uuid;

namespace {

/// A broker that is not there is noticed at once, unless nothing answers.
constexpr auto LEAST_TO_CONNECT = std::chrono::seconds(10);

/// A file's first line, or else the value of the environment variable.
std::string secret(std::string const& file, char const* variable) {
    if (file.empty()) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
        char const* const value = std::getenv(variable);
        return value == nullptr ? "" : value;
    }
    std::string line;
    std::ifstream in(file);
    if (!in || !std::getline(in, line)) {
        throw CommandFailed(ExitCode::USAGE, "cannot read the first line of " + file);
    }
    return line;
}

/// Why a client has no connection.
std::string reasonOf(MqttClient const& client, MqttClient::Error error, Settings const& settings) {
    std::ostringstream text;
    auto const failure = client.lastFailure();
    if (failure.reason != mqtt::Failure::Reason::NONE) {
        text << failure;
    } else {
        text << settings.broker() << " does not answer: " << error;
    }
    return text.str();
}

} // namespace

bool Security::usesTls() const {
    return tls || insecureSkipHostNameCheck || !caFile.empty() || !caFolder.empty()
           || !certificateFile.empty() || !keyFile.empty() || !pskIdentity.empty();
}

int Settings::portNumber() const {
    if (!unixSocket.empty()) {
        return 0;
    }
    return port != 0 ? port : usesTls() ? 8883 : 1883;
}

std::string Settings::broker() const {
    return unixSocket.empty() ? host + ", port " + std::to_string(portNumber()) : unixSocket;
}

mqtt::ConnectionOptions Settings::connectionOptions() const {
    mqtt::ConnectionOptions options;
    options.sleepsWhileDisconnected = true;
    if (!user.empty()) {
        options.credentials = mqtt::Credentials{user, secret(passwordFile, "ZYMCTL_PASSWORD")};
    }
    if (tlsVersion != "1.2" && tlsVersion != "1.3") {
        throw CommandFailed(ExitCode::USAGE, "the version of TLS is 1.2 or 1.3");
    }
    if (!usesTls()) {
        return options;
    }
    auto& secure = options.tls.emplace(static_cast<mqtt::Tls const&>(*this));
    if (tlsVersion == "1.3") {
        secure.minimumVersion = mqtt::Tls::Version::TLS_1_3;
    }
    if (!keyFile.empty()) {
        secure.keyPassword = [password = secret(keyPasswordFile, "ZYMCTL_KEY_PASSWORD")] {
            return password;
        };
    }
    if (!pskIdentity.empty()) {
        secure.preSharedKey = mqtt::PreSharedKey{pskIdentity, secret(pskFile, "ZYMCTL_PSK")};
    }
    return options;
}

Uuid Settings::clientId() const {
    return identity.empty() ? randomIdentifier() : identifier(identity);
}

Clock::time_point Settings::end() const {
    return seconds == 0 ? Clock::time_point::max() : Clock::now() + std::chrono::seconds(seconds);
}

Uuid identifier(std::string const& text) {
    if (text.empty()) {
        return Uuid::NIL;
    }
    bool const isNumber =
        text.size() < 20 && text.find_first_not_of("0123456789") == std::string::npos;
    try {
        return isNumber ? Uuid(std::strtoull(text.c_str(), nullptr, 10)) : Uuid(text);
    } catch (std::invalid_argument const&) {
        throw CommandFailed(ExitCode::USAGE,
                            "'" + text + "' is no identifier: a number, or 22 or 36 characters");
    }
}

Uuid randomIdentifier() {
    std::random_device random;
    return Uuid((static_cast<unsigned long long>(random()) << 32U) | random());
}

void require(MqttClient::Error error, std::string const& what) {
    if (error == MqttClient::Error::SUCCESS) {
        return;
    }
    std::ostringstream text;
    text << what << ": " << error;
    bool const wrong =
        error == MqttClient::Error::INVALID_PARAMETER || static_cast<int>(error) == 18;
    throw CommandFailed(wrong                                 ? ExitCode::USAGE
                        : error == MqttClient::Error::TIMEOUT ? ExitCode::NO_ANSWER
                                                              : ExitCode::FAILED,
                        text.str());
}

Connection::Connection(Context& context)
    : context_(context),
      client(randomIdentifier(), false, "zymctl", context.settings.address(),
             context.settings.portNumber(), false, context.settings.connectionOptions()) {
    context.console.progress("connecting to " + context.settings.broker());
    auto const isConnected = [this] {
        return client.communicationState() == conv::ComState::CONNECTED;
    };
    // The client would try again until the time is over; here the first reason is enough.
    auto const isDecided = [&] {
        return isConnected() || client.lastFailure().reason != mqtt::Failure::Reason::NONE;
    };
    auto const error = client.connect("", -1, 0);
    if (error == MqttClient::Error::TIMEOUT) {
        auto const least = Clock::now() + LEAST_TO_CONNECT;
        context.interruption.wait(std::max(context.settings.deadline(), least), isDecided);
    }
    if (!isConnected()) {
        throw CommandFailed(ExitCode::NO_CONNECTION, reasonOf(client, error, context.settings));
    }
    context.interruption.hold();
}

Connection::~Connection() {
    client.release(this);
    client.disconnect(context_.settings.timeout);
}

void Connection::subscribe(mqtt::Topic const& topic) {
    require(client.subscribe(topic, this, 0), "cannot subscribe to " + topic.text());
}

bool Connection::read(Clock::time_point deadline,
                      std::function<bool(Message const& message)> const& isLast) {
    return context_.interruption.wait(deadline, [&] {
        for (Message message; take(message);) {
            if (isLast(message)) {
                return true;
            }
        }
        return false;
    });
}

bool Connection::take(Message& message) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (messages_.empty()) {
        return false;
    }
    message = std::move(messages_.front());
    messages_.pop_front();
    return true;
}

void Connection::onMqttMessage(int /*tag*/, mqtt::Topic const& topic, std::string const& payload) {
    std::lock_guard<std::mutex> const lock(mutex_);
    messages_.push_back({topic, payload});
}
