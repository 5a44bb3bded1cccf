#include "client/tls_error.hpp"

#include <cstdlib>
#include <string_view>

namespace mqtt {

namespace {

using Reason = Failure::Reason;

// Numbers of OpenSSL (openssl/sslerr.h). Those of 1000 and above are alerts that the broker has
// sent: 1000 and the number of the alert (RFC 8446, section 6).
constexpr unsigned CERTIFICATE_VERIFY_FAILED = 134;
constexpr unsigned NO_PROTOCOLS_AVAILABLE = 191;
constexpr unsigned UNSUPPORTED_PROTOCOL = 258;
constexpr unsigned WRONG_VERSION_NUMBER = 267;
constexpr unsigned UNEXPECTED_END = 294;
constexpr unsigned ALERTS = 1000;

Reason alertReason(unsigned alert) {
    switch (alert) {
    case 70: // protocol version
        return Reason::TLS_VERSION;
    case 20:  // bad record MAC: another pre-shared key
    case 40:  // handshake failure
    case 41:  // no certificate
    case 42:  // bad certificate
    case 43:  // unsupported certificate
    case 44:  // revoked
    case 45:  // expired
    case 46:  // unknown problem of the certificate
    case 47:  // illegal parameter: another pre-shared key
    case 48:  // unknown authority
    case 49:  // access denied
    case 51:  // decrypt error: another pre-shared key, too
    case 115: // unknown identity of a pre-shared key
    case 116: // certificate required
        return Reason::TLS_CLIENT_REFUSED;
    default:
        return Reason::TLS_OTHER;
    }
}

Reason reasonOfNumber(unsigned number) {
    switch (number) {
    case CERTIFICATE_VERIFY_FAILED:
        return Reason::CERTIFICATE_NOT_TRUSTED;
    case NO_PROTOCOLS_AVAILABLE:
    case UNSUPPORTED_PROTOCOL:
        return Reason::TLS_VERSION;
    case WRONG_VERSION_NUMBER:
        return Reason::NO_TLS_AT_BROKER;
    case UNEXPECTED_END:
        return Reason::CLOSED_BEFORE_ACCEPTANCE;
    default:
        return number >= ALERTS ? alertReason(number - ALERTS) : Reason::TLS_OTHER;
    }
}

} // namespace

Reason tlsReason(char const* text) {
    constexpr std::string_view error = "error:";
    constexpr unsigned long lowestBits = 0xFFF; // the reason; those above it say where it occurred
    std::string_view const line(text);
    auto const contains = [&](char const* part) {
        return line.find(part) != std::string_view::npos;
    };
    if (contains("host name verification failed")) {
        return Reason::HOST_NAME_MISMATCH;
    }
    if (contains("Unable to load") || contains("certificate/key are inconsistent")) {
        return Reason::TLS_FILES;
    }
    auto const number = line.find(error);
    if (!contains("OpenSSL Error") || number == std::string_view::npos) {
        return Reason::NONE;
    }
    if (!contains(":SSL routines:")) {
        return Reason::TLS_OTHER;
    }
    auto const code = std::strtoul(text + number + error.size(), nullptr, 16);
    return reasonOfNumber(static_cast<unsigned>(code & lowestBits));
}

} // namespace mqtt
