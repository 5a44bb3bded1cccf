#include "settings.hpp"

#include <algorithm>
#include <cctype>
#include <cstdint>
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

bool Settings::usesTls() const {
    return tls || insecureSkipHostNameCheck || !caFile.empty() || !caFolder.empty()
           || !certificateFile.empty() || !keyFile.empty() || !pskIdentity.empty();
}

int Settings::portNumber() const {
    if (!unixSocket.empty()) {
        return 0;
    }
    if (port > UINT16_MAX) {
        throw CommandFailed(ExitCode::USAGE, "a port is a number up to 65535");
    }
    return port != 0 ? static_cast<int>(port) : usesTls() ? 8883 : 1883;
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
    auto& secure = options.tls.emplace();
    secure.caFile = caFile;
    secure.caFolder = caFolder;
    secure.certificateFile = certificateFile;
    secure.keyFile = keyFile;
    if (!keyFile.empty()) {
        auto password = secret(keyPasswordFile, "ZYMCTL_KEY_PASSWORD");
        secure.keyPassword = [password] { return password; };
    }
    if (!pskIdentity.empty()) {
        secure.preSharedKey = mqtt::PreSharedKey{pskIdentity, secret(pskFile, "ZYMCTL_PSK")};
    }
    secure.minimumVersion =
        tlsVersion == "1.3" ? mqtt::Tls::Version::TLS_1_3 : mqtt::Tls::Version::TLS_1_2;
    secure.insecureSkipHostNameCheck = insecureSkipHostNameCheck;
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
    bool const isNumber = text.size() < 20
                          && std::all_of(text.begin(), text.end(),
                                         [](unsigned char c) { return std::isdigit(c) != 0; });
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

Connection::Connection(Context& context)
    : client(randomIdentifier(), false, "zymctl", context.settings.address(),
             context.settings.portNumber(), false, context.settings.connectionOptions()),
      timeout_(context.settings.timeout) {
    context.console.progress("connecting to " + context.settings.broker());
    auto error = client.connect("", -1, 0);
    // The client would try again until the time is over; here the first reason is enough.
    auto const deadline = std::max(context.settings.deadline(), Clock::now() + LEAST_TO_CONNECT);
    while (error == MqttClient::Error::TIMEOUT && Clock::now() < deadline
           && client.lastFailure().reason == mqtt::Failure::Reason::NONE) {
        if (client.communicationState() == conv::ComState::CONNECTED) {
            error = MqttClient::Error::SUCCESS;
        } else {
            context.interruption.pause(Clock::now() + std::chrono::milliseconds(2));
        }
    }
    if (error != MqttClient::Error::SUCCESS) {
        throw CommandFailed(ExitCode::NO_CONNECTION, reasonOf(client, error, context.settings));
    }
    context.interruption.hold();
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
