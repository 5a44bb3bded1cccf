#include "mqtt/client.hpp"

#include <cerrno>
#include <ostream>

namespace mqtt {

namespace {

char const* text(MqttClient::Error error) {
    using Error = MqttClient::Error;
    switch (error) {
    case Error::CONNECTION_PENDING:
        return "CONNECTION_PENDING";
    case Error::SUCCESS:
        return "SUCCESS";
    case Error::NO_MEMORY:
        return "NO_MEMORY";
    case Error::UNACCEPTABLE_PROTOCOL:
        return "UNACCEPTABLE_PROTOCOL";
    case Error::INVALID_PARAMETER:
        return "INVALID PARAMETER";
    case Error::NO_CONN:
        return "NO_CONN";
    case Error::CONN_REFUSED:
        return "CONN_REFUSED";
    case Error::NOT_FOUND:
        return "NOT_FOUND";
    case Error::CONN_LOST:
        return "CONN_LOST";
    case Error::TLS:
        return "TLS";
    case Error::PAYLOAD_SIZE:
        return "PAYLOAD_SIZE";
    case Error::NOT_SUPPORTED:
        return "NOT_SUPPORTED";
    case Error::AUTH:
        return "AUTH";
    case Error::ACL_DENIED:
        return "ACL_DENIED";
    case Error::ERRNO:
        return "ERRNO #";
    case Error::EAI:
        return "EAI";
    case Error::PROXY:
        return "PROXY";
    case Error::TIMEOUT:
        return "TIMEOUT";
    case Error::UNKNOWN:
        break;
    }
    return "UNKNOWN";
}

} // namespace

std::ostream& operator<<(std::ostream& out, MqttClient::Error const& error) {
    int const systemError = errno;
    out << text(error);
    if (error == MqttClient::Error::ERRNO) {
        out << std::to_string(systemError);
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, MqttClient::ConnectionError const& error) {
    using Error = MqttClient::ConnectionError;
    switch (error) {
    case Error::SUCCESS:
        return out << "SUCCESS";
    case Error::UNACCEPTABLE_PROTOCOL:
        return out << "UNACCEPTABLE_PROTOCOL";
    case Error::IDENTIFIER_REJECTED:
        return out << "IDENTIFIER_REJECTED";
    case Error::BROKER_UNAVAILABLE:
        return out << "BROKER_UNAVAILABLE";
    }
    return out << "UNKNOWN";
}

std::ostream& operator<<(std::ostream& out, MqttClient::DisconnectionError const& error) {
    return out << (error == MqttClient::DisconnectionError::SUCCESS ? "SUCCESS" : "UNEXPECTED");
}

} // namespace mqtt
