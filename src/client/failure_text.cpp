#include "mqtt/failure.hpp"

#include <ostream>
#include <system_error>

#include <netdb.h>

namespace mqtt {

namespace {

using Reason = Failure::Reason;

struct Text {
    char const* name;
    char const* what;
    char const* remedy; ///< a sentence
};

Text textOf(Reason reason) {
    switch (reason) {
    case Reason::NONE:
        return {"NONE", "no failure", ""};
    case Reason::NAME_NOT_RESOLVED:
        return {"NAME_NOT_RESOLVED", "the host name cannot be resolved",
                "Check the name and the DNS servers of this device."};
    case Reason::UNREACHABLE:
        return {"UNREACHABLE", "the broker cannot be reached",
                "Check that the broker runs, the address, the port, and the network."};
    case Reason::TOO_MANY_DESCRIPTORS:
        return {"TOO_MANY_DESCRIPTORS", "there is no file descriptor for the connection",
                "Check whether the process leaks descriptors, and raise its limit (ulimit -n)."};
    case Reason::TLS_FILES:
        return {"TLS_FILES", "this client's own TLS files cannot be used",
                "Check that the files exist, that this user may read them, that the password is "
                "right, and that key and certificate belong together."};
    case Reason::CERTIFICATE_NOT_TRUSTED:
        return {"CERTIFICATE_NOT_TRUSTED", "the broker's certificate is not trusted",
                "Check that it was signed by an authority that this client trusts, that it has not "
                "expired, and the clock of this device."};
    case Reason::HOST_NAME_MISMATCH:
        return {"HOST_NAME_MISMATCH", "the broker's certificate is for another host",
                "Connect to a name or an address that stands in the certificate as "
                "subjectAltName."};
    case Reason::NO_TLS_AT_BROKER:
        return {"NO_TLS_AT_BROKER", "the broker does not speak TLS on this port",
                "Check the port, usually 8883 for TLS, and the listener of the broker."};
    case Reason::TLS_VERSION:
        return {"TLS_VERSION", "client and broker have no version of TLS in common",
                "Check the versions that the broker allows, and this client's minimum version."};
    case Reason::TLS_CLIENT_REFUSED:
        return {"TLS_CLIENT_REFUSED", "the broker refuses this client's certificate or key",
                "Check that the client has a certificate from an authority that the broker trusts, "
                "and that it has not expired; or identity and pre-shared key."};
    case Reason::TLS_OTHER:
        return {"TLS_OTHER", "the encrypted connection cannot be made",
                "See the TLS library's text, and the broker's log."};
    case Reason::REFUSED_PROTOCOL:
        return {"REFUSED_PROTOCOL", "the broker refuses the MQTT version",
                "Allow MQTT 3.1.1 at the broker."};
    case Reason::REFUSED_IDENTIFIER:
        return {"REFUSED_IDENTIFIER", "the broker refuses the client identifier",
                "Check the broker's rules for identifiers."};
    case Reason::REFUSED_UNAVAILABLE:
        return {"REFUSED_UNAVAILABLE", "the broker says that it is not available",
                "See the broker's log."};
    case Reason::REFUSED_CREDENTIALS:
        return {"REFUSED_CREDENTIALS", "the broker refuses user name and password",
                "Check both, and the broker's password file."};
    case Reason::REFUSED_NOT_AUTHORISED:
        return {"REFUSED_NOT_AUTHORISED", "the broker does not authorise this client",
                "Check user name and password, and whether the broker allows clients without."};
    case Reason::CLOSED_BEFORE_ACCEPTANCE:
        return {
            "CLOSED_BEFORE_ACCEPTANCE",
            "the connection was closed before the broker accepted the client",
            "Check whether the port expects TLS, or does not speak it, and see the broker's log."};
    case Reason::CLOSED_BY_BROKER:
        return {"CLOSED_BY_BROKER", "the broker has closed the connection",
                "Check that it runs and that no other client has the same identifier, and see its "
                "log."};
    case Reason::KEEP_ALIVE_EXPIRED:
        return {"KEEP_ALIVE_EXPIRED", "the broker has not answered in time",
                "Check the network, and whether the broker hangs."};
    case Reason::PUBLICATION_GIVEN_UP:
        return {"PUBLICATION_GIVEN_UP", "a publication was given up",
                "The broker closed the connection each time it was sent: check its limits."};
    case Reason::NOT_MQTT:
        return {"NOT_MQTT", "the other side does not keep to MQTT",
                "Check that this is the port of an MQTT broker."};
    case Reason::CREDENTIALS_FUNCTION:
        return {"CREDENTIALS_FUNCTION", "the function for the credentials failed",
                "Check this program."};
    case Reason::OTHER:
        return {"OTHER", "the connection cannot be made or kept", "See the broker's log."};
    }
    return {"UNKNOWN", "unknown failure", ""};
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
