#include "client/connection_report.hpp"

#include "client/tls_error.hpp"
#include "common/log.hpp"
#include "common/user_call.hpp"

#include <mosquitto.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace mqtt {

namespace {

using Reason = Failure::Reason;

/// Whether no descriptor is to be had: then a name cannot be resolved either, and the resolver does
/// not say why.
bool hasNoDescriptor() {
    int const fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::close(fd);
    }
    return fd < 0 && (errno == EMFILE || errno == ENFILE);
}

Reason refusal(int code) {
    constexpr std::array reasons{Reason::REFUSED_PROTOCOL, Reason::REFUSED_IDENTIFIER,
                                 Reason::REFUSED_UNAVAILABLE, Reason::REFUSED_CREDENTIALS,
                                 Reason::REFUSED_NOT_AUTHORISED};
    auto const index = static_cast<std::size_t>(code) - 1;
    return index < reasons.size() ? reasons.at(index) : Reason::NOT_MQTT;
}

Failure systemFailure(int systemError) {
    if (systemError == EMFILE || systemError == ENFILE) {
        return {Reason::TOO_MANY_DESCRIPTORS, systemError};
    }
    // Version 2.1 of the broker library replaces the error by this one.
    if (systemError == EBADF) {
        return {hasNoDescriptor() ? Reason::TOO_MANY_DESCRIPTORS : Reason::UNREACHABLE};
    }
    return {Reason::UNREACHABLE, systemError};
}

/// A clock that is wrong makes every certificate invalid.
std::string dateOfThisDevice() {
    std::time_t const now = std::time(nullptr);
    std::tm parts{};
    std::array<char, 64> text{};
    if (::gmtime_r(&now, &parts) != nullptr) {
        std::strftime(text.data(), text.size(), "; this device's date is %Y-%m-%d", &parts);
    }
    return text.data();
}

} // namespace

Failure ConnectionReport::lastFailure() const {
    std::lock_guard const lock(mutex_);
    return last_;
}

void ConnectionReport::publicationLost(char const* how, std::string const& topic,
                                       std::size_t payloadSize) const noexcept {
    log(LogLevel::ERROR, clientId_, ": publication ", how, " at a limit of the queue: ", topic,
        ", ", payloadSize, " bytes");
}

void ConnectionReport::messageDropped(char const* topic, std::size_t payloadSize) const noexcept {
    log(LogLevel::ERROR, clientId_, ": message dropped because of its size: ", topic, ", ",
        payloadSize, " bytes");
}

void ConnectionReport::subscriptionRefused(std::string const& topic) const noexcept {
    log(LogLevel::ERROR, clientId_,
        ": subscription refused by the broker: ", topic.empty() ? "of an unknown topic" : topic);
}

void ConnectionReport::connectBegins(char const* host, int port) noexcept {
    callUser([&] {
        std::lock_guard const lock(mutex_);
        last_ = {};
        last_.peer = host;
        // With port 0 the host is the path of a unix socket.
        if (port != 0) {
            last_.peer += ':' + std::to_string(port);
        }
    });
}

void ConnectionReport::attemptBegins() noexcept {
    {
        std::lock_guard const lock(mutex_);
        tlsReason_ = Reason::NONE;
        tlsText_.reset();
        isAccepted_ = false;
        hasFailed_ = false;
    }
    log(LogLevel::INFO, clientId_, ": connects to ", last_.peer);
}

void ConnectionReport::answered(int code) noexcept {
    if (code != 0) {
        failed({refusal(code)});
        return;
    }
    std::lock_guard const lock(mutex_);
    isAccepted_ = true;
}

void ConnectionReport::connectionCompleted() const noexcept {
    log(LogLevel::INFO, clientId_, ": connected to ", last_.peer);
}

void ConnectionReport::waitsForNextAttempt(std::chrono::milliseconds delay) const noexcept {
    log(LogLevel::INFO, clientId_, ": next attempt to connect in ", delay.count(), " ms");
}

void ConnectionReport::brokerLibraryWrote(int level, char const* text) noexcept {
    log(LogLevel::DETAIL, clientId_, ": broker library: ", text);
    if (level != MOSQ_LOG_ERR) {
        return;
    }
    callUser([&] {
        auto const reason = tlsReason(text);
        std::lock_guard const lock(mutex_);
        if (reason == Reason::NONE) {
            return;
        }
        if (tlsReason_ == Reason::NONE) {
            tlsText_ = std::make_unique<std::string>(text);
            tlsReason_ = reason;
        } else if (tlsReason_ == Reason::TLS_FILES) {
            tlsText_->append(" ").append(text); // why the file cannot be used
        }
    });
}

Failure ConnectionReport::failureOf(int result, int systemError) const {
    std::lock_guard const lock(mutex_);
    auto const closed = isAccepted_ ? Reason::CLOSED_BY_BROKER : Reason::CLOSED_BEFORE_ACCEPTANCE;
    bool const isHandshake = result == MOSQ_ERR_TLS;
    switch (tlsReason_) {
    case Reason::NONE:
        break;
    case Reason::CLOSED_BEFORE_ACCEPTANCE:
        return {isHandshake ? Reason::NO_TLS_AT_BROKER : closed};
    case Reason::CERTIFICATE_NOT_TRUSTED:
        return {tlsReason_, 0, {}, *tlsText_ + dateOfThisDevice()};
    default:
        return {tlsReason_, 0, {}, *tlsText_};
    }
    switch (result) {
    case MOSQ_ERR_CONN_LOST:
    case MOSQ_ERR_TLS: // the TLS library has nothing to say: the connection was reset
        return {closed};
    case MOSQ_ERR_KEEPALIVE:
        return {Reason::KEEP_ALIVE_EXPIRED};
    case MOSQ_ERR_EAI:
        return {hasNoDescriptor() ? Reason::TOO_MANY_DESCRIPTORS : Reason::NAME_NOT_RESOLVED,
                systemError};
    case MOSQ_ERR_ERRNO:
        // The broker library's error for all that goes wrong inside TLS.
        return systemError == EPROTO ? Failure{closed} : systemFailure(systemError);
    case MOSQ_ERR_PROTOCOL:
    case MOSQ_ERR_MALFORMED_PACKET:
        return {Reason::NOT_MQTT};
    default:
        return {Reason::OTHER, 0, {}, mosquitto_strerror(result)};
    }
}

void ConnectionReport::publicationGivenUp(std::string const& topic,
                                          std::size_t payloadSize) noexcept {
    callUser([&] {
        failed({Reason::PUBLICATION_GIVEN_UP,
                0,
                {},
                topic + ", " + std::to_string(payloadSize) + " bytes"});
    });
}

void ConnectionReport::failed(int result, int systemError) noexcept {
    callUser([&] { failed(failureOf(result, systemError)); });
}

void ConnectionReport::failed(Failure failure) noexcept {
    {
        std::lock_guard const lock(mutex_);
        if (std::exchange(hasFailed_, true)) {
            return;
        }
        failure.peer.swap(last_.peer);
        last_ = std::move(failure);
    }
    bool const losesData = last_.reason == Reason::PUBLICATION_GIVEN_UP;
    log(losesData ? LogLevel::ERROR : LogLevel::WARNING, clientId_,
        isAccepted_ ? ": connection lost: " : ": not connected: ", last_);
}

} // namespace mqtt
