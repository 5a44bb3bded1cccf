#include "mqtt/failure.hpp"

#include <algorithm>
#include <array>
#include <ostream>
#include <system_error>

#include <netdb.h>

namespace mqtt {

namespace {

using Reason = Failure::Reason;

struct Text {
    Reason reason;
    char const* name;
    char const* what;
    char const* remedy; ///< a sentence
};

constexpr std::array TEXTS{
    Text{Reason::NONE, "NONE", "no failure", ""},
    Text{Reason::NAME_NOT_RESOLVED, "NAME_NOT_RESOLVED", "the host name cannot be resolved",
         "Check the name and the DNS servers of this device."},
    Text{Reason::UNREACHABLE, "UNREACHABLE", "the broker cannot be reached",
         "Check that the broker runs, the address, the port, and the network."},
    Text{Reason::TOO_MANY_DESCRIPTORS, "TOO_MANY_DESCRIPTORS",
         "there is no file descriptor for the connection",
         "Check whether the process leaks descriptors, and raise its limit (ulimit -n)."},
    Text{Reason::TLS_FILES, "TLS_FILES", "this client's own TLS files cannot be used",
         "Check that the files exist, that this user may read them, that the password is "
         "right, and that key and certificate belong together."},
    Text{Reason::CERTIFICATE_NOT_TRUSTED, "CERTIFICATE_NOT_TRUSTED",
         "the broker's certificate is not trusted",
         "Check that it was signed by an authority that this client trusts, that it has not "
         "expired, and the clock of this device."},
    Text{Reason::HOST_NAME_MISMATCH, "HOST_NAME_MISMATCH",
         "the broker's certificate is for another host",
         "Connect to a name or an address that stands in the certificate as "
         "subjectAltName."},
    Text{Reason::NO_TLS_AT_BROKER, "NO_TLS_AT_BROKER", "the broker does not speak TLS on this port",
         "Check the port, usually 8883 for TLS, and the listener of the broker."},
    Text{Reason::TLS_VERSION, "TLS_VERSION", "client and broker have no version of TLS in common",
         "Check the versions that the broker allows, and this client's minimum version."},
    Text{Reason::TLS_CLIENT_REFUSED, "TLS_CLIENT_REFUSED",
         "the broker refuses this client's certificate or key",
         "Check that the client has a certificate from an authority that the broker trusts, "
         "and that it has not expired; or identity and pre-shared key."},
    Text{Reason::TLS_OTHER, "TLS_OTHER", "the encrypted connection cannot be made",
         "See the TLS library's text, and the broker's log."},
    Text{Reason::REFUSED_PROTOCOL, "REFUSED_PROTOCOL", "the broker refuses the MQTT version",
         "Allow MQTT 3.1.1 at the broker."},
    Text{Reason::REFUSED_IDENTIFIER, "REFUSED_IDENTIFIER",
         "the broker refuses the client identifier", "Check the broker's rules for identifiers."},
    Text{Reason::REFUSED_UNAVAILABLE, "REFUSED_UNAVAILABLE",
         "the broker says that it is not available", "See the broker's log."},
    Text{Reason::REFUSED_CREDENTIALS, "REFUSED_CREDENTIALS",
         "the broker refuses user name and password",
         "Check both, and the broker's password file."},
    Text{Reason::REFUSED_NOT_AUTHORISED, "REFUSED_NOT_AUTHORISED",
         "the broker does not authorise this client",
         "Check user name and password, and whether the broker allows clients without."},
    Text{Reason::CLOSED_BEFORE_ACCEPTANCE, "CLOSED_BEFORE_ACCEPTANCE",
         "the connection was closed before the broker accepted the client",
         "Check whether the port expects TLS, or does not speak it, and see the broker's log."},
    Text{Reason::CLOSED_BY_BROKER, "CLOSED_BY_BROKER", "the broker has closed the connection",
         "Check that it runs and that no other client has the same identifier, and see its "
         "log."},
    Text{Reason::KEEP_ALIVE_EXPIRED, "KEEP_ALIVE_EXPIRED", "the broker has not answered in time",
         "Check the network, and whether the broker hangs."},
    Text{Reason::PUBLICATION_GIVEN_UP, "PUBLICATION_GIVEN_UP", "a publication was given up",
         "The broker closed the connection each time it was sent: check its limits."},
    Text{Reason::NOT_MQTT, "NOT_MQTT", "the other side does not keep to MQTT",
         "Check that this is the port of an MQTT broker."},
    Text{Reason::CREDENTIALS_FUNCTION, "CREDENTIALS_FUNCTION",
         "the function for the credentials failed", "Check this program."},
    Text{Reason::OTHER, "OTHER", "the connection cannot be made or kept", "See the broker's log."},
};

Text textOf(Reason reason) {
    auto const* const found = std::find_if(TEXTS.begin(), TEXTS.end(),
                                           [&](Text const& text) { return text.reason == reason; });
    return found == TEXTS.end() ? Text{reason, "UNKNOWN", "unknown failure", ""} : *found;
}

std::string systemText(Failure const& failure) {
    if (failure.reason == Reason::NAME_NOT_RESOLVED) {
        return ::gai_strerror(failure.systemError);
    }
    return failure.systemError == 0 ? "" : std::generic_category().message(failure.systemError);
}

void writeInBrackets(std::ostream& out, std::string const& text) {
    if (!text.empty()) {
        out << " (" << text << ')';
    }
}

} // namespace

std::ostream& operator<<(std::ostream& out, Failure::Reason reason) {
    return out << textOf(reason).name;
}

std::ostream& operator<<(std::ostream& out, Failure const& failure) {
    auto const text = textOf(failure.reason);
    if (!failure.peer.empty()) {
        out << failure.peer << ": ";
    }
    out << text.what;
    writeInBrackets(out, systemText(failure));
    writeInBrackets(out, failure.detail);
    return out << (*text.remedy == '\0' ? "" : ". ") << text.remedy;
}

} // namespace mqtt
