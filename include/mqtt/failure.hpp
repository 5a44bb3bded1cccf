#pragma once

#include "mqtt/export.hpp"

#include <cstdint>
#include <iosfwd>
#include <string>

namespace mqtt {

/// Why an attempt to connect failed, or a connection ended.
struct Failure {
    enum class Reason : std::uint8_t {
        NONE = 0,
        NAME_NOT_RESOLVED,    ///< `systemError` is the code of getaddrinfo()
        UNREACHABLE,          ///< `systemError` says why
        TOO_MANY_DESCRIPTORS, ///< of this process, or of the system
        /// Own certificate, key or authorities cannot be read, or do not belong together.
        TLS_FILES,
        /// Signed by another authority, expired, or not valid yet. The broker library does not say
        /// which.
        CERTIFICATE_NOT_TRUSTED,
        /// The certificate is trusted, but is that of another host. With libmosquitto 2.1 this is
        /// CERTIFICATE_NOT_TRUSTED too.
        HOST_NAME_MISMATCH,
        /// The answer is not TLS, or the connection is closed instead of one.
        NO_TLS_AT_BROKER,
        TLS_VERSION, ///< the broker's versions of TLS are all too old, or too new
        /// The broker refuses this client's certificate or pre-shared key, or that it has none.
        TLS_CLIENT_REFUSED,
        TLS_OTHER, ///< `detail` has the text of the TLS library
        REFUSED_PROTOCOL,
        REFUSED_IDENTIFIER,
        REFUSED_UNAVAILABLE,
        REFUSED_CREDENTIALS,
        /// Mosquitto answers a wrong password with this reason too.
        REFUSED_NOT_AUTHORISED,
        /// The connection was closed before the broker accepted the client. A broker that expects
        /// TLS does that to a client without. A broker that refuses a client's certificate may
        /// close the connection before its reason arrives; with libmosquitto 2.1 this is also the
        /// reason when a broker does not speak TLS.
        CLOSED_BEFORE_ACCEPTANCE,
        /// Also when another client with the same identifier has connected, or the broker has
        /// ended: MQTT 3.1.1 has no message for the difference.
        CLOSED_BY_BROKER,
        KEEP_ALIVE_EXPIRED, ///< the broker has not answered in time
        /// A publication, after which the broker closed the connection several times, was given up.
        /// `detail` has its topic and size.
        PUBLICATION_GIVEN_UP,
        NOT_MQTT, ///< the other side has sent what is not allowed in MQTT
        /// The function for the credentials threw an exception or gave some that cannot be sent.
        CREDENTIALS_FUNCTION,
        OTHER ///< `detail` has the broker library's text
    };

    Reason reason = Reason::NONE;
    int systemError = 0; ///< an errno value unless the reason says otherwise; 0 if there is none
    std::string peer{};  ///< host and port of the attempt
    /// What helps to find the cause: a file, the text of another library. Never a secret.
    std::string detail{};
};

/// Writes the name of a reason, and "UNKNOWN" for other values.
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out, Failure::Reason reason);

/// Writes a sentence that says what is wrong, and where to look.
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out, Failure const& failure);

} // namespace mqtt
