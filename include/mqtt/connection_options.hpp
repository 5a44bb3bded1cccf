#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace mqtt {

/// User name and password, as a broker's password file has them.
struct Credentials {
    std::string userName; ///< UTF-8 without a zero byte, 1 to 65,535 bytes
    std::string password; ///< without a zero byte, up to 65,535 bytes
};

/// A secret that this client and the broker have in common, in place of certificates.
struct PreSharedKey {
    std::string identity; ///< under which the broker finds the key
    std::string key;      ///< hexadecimal digits, two for each byte
};

/// How a connection is encrypted, and how both sides prove who they are.
///
/// As made: the broker's certificate must be for the host given to `connect`, and signed by one of
/// the system's certification authorities. All files are PEM. They are read at each attempt to
/// connect, so that they can be replaced while the program runs. A certification authority that was
/// read once stays trusted until the client is destroyed.
struct Tls {
    enum class Version : std::uint8_t { TLS_1_2, TLS_1_3 };

    /// The system's certification authorities, used if neither a file nor a folder is given.
    static constexpr char const* SYSTEM_CA_FOLDER = "/etc/ssl/certs";

    /// The certificates that the broker's certificate may be signed by.
    std::string caFile;
    /// The same as a folder with one file for each, prepared by `openssl rehash`.
    std::string caFolder;

    /// This client's certificate, followed by those between it and the broker's authority.
    std::string certificateFile;
    std::string keyFile;
    /// Gives the password of an encrypted key. Called as `ConnectionOptions::credentialsFunction`
    /// is; what it throws makes the key unreadable. Without it an encrypted key is unreadable.
    std::function<std::string()> keyPassword;

    /// Without any of the files above.
    std::optional<PreSharedKey> preSharedKey;

    Version minimumVersion = Version::TLS_1_2;

    /// Accepts a trusted certificate of any other host. Then everybody who has a certificate of the
    /// same authority can pretend to be the broker, and gets the password.
    bool insecureSkipHostNameCheck = false;
};

/// How much a client keeps for the broker, and what happens with more. As made there is no limit.
///
/// What waits for a connection counts, and what the broker library has been given and has not
/// written to the network (QoS 0) or had acknowledged (QoS 1 and 2): so the limits hold also while
/// a connected broker does not read. What the broker library has cannot be dropped. It gets a part
/// of the publications at a time, at most half of each limit; all that is queued when a connection
/// is completed; and what is queued when `publishWait` or `clear` is called, which wait for no
/// other.
///
/// A publication that is not accepted under any policy is rejected: `publish`, `publishWait` and
/// `clear` return NO_MEMORY.
struct QueueLimits {
    enum class Policy : std::uint8_t {
        REJECT_NEW,  ///< the new publication is not accepted
        DROP_OLDEST, ///< the oldest that are queued are dropped; their result was SUCCESS
        /// Also below the limits, only the newest of each topic stays queued, whatever its QoS, and
        /// is sent in its place. At the limits, another topic is not accepted. A publication takes
        /// time in proportion to what is queued.
        NEWEST_OF_EACH_TOPIC
    };

    static constexpr std::size_t NO_LIMIT = static_cast<std::size_t>(-1);
    /// What a publication takes beside its topic and its payload.
    static constexpr std::size_t BYTES_PER_MESSAGE = 200;

    std::size_t messages = NO_LIMIT;
    std::size_t bytes = NO_LIMIT; ///< of topics and payloads, and `BYTES_PER_MESSAGE` for each
    Policy policy = Policy::REJECT_NEW;
};

/// How a client connects. As made it is what a client without options does: without credentials,
/// unencrypted, and without limits.
struct ConnectionOptions {
    /// Sent with each attempt to connect; without TLS everybody on the way can read them.
    std::optional<Credentials> credentials;
    /// In place of `credentials`: called before each attempt to connect, for passwords that expire.
    ///
    /// Called on the thread that calls `connect`, and on the client's worker before it connects
    /// again. The client's network operations are blocked meanwhile: it must not connect,
    /// disconnect or destroy the client, nor wait for it; it may publish. If it throws, the attempt
    /// fails, with the reason `CREDENTIALS_FUNCTION`.
    std::function<Credentials()> credentialsFunction;

    std::optional<Tls> tls;

    QueueLimits queueLimits;

    /// In bytes: a larger payload is refused with PAYLOAD_SIZE. Prevents that a broker with such a
    /// limit closes the connection.
    std::size_t maxPayloadToSend = QueueLimits::NO_LIMIT;
    /// In bytes: a larger message is dropped and logged, in place of calling its subscribers. The
    /// broker library has read it before, so it takes memory all the same.
    std::size_t maxPayloadToReceive = QueueLimits::NO_LIMIT;

    /// Whether the worker of a client that is disconnected (state 1) sleeps until `connect` is
    /// called. Otherwise it uses one processor core all the time, and `connect` may begin some
    /// microseconds earlier.
    bool sleepsWhileDisconnected = false;
};

} // namespace mqtt
