#pragma once

#include "mqtt/client.hpp"
#include "mqtt/connection_options.hpp"
#include "mqtt/failure.hpp"
#include "mqtt/mosquittopp.hpp"

#include <cstdint>
#include <memory>
#include <optional>

namespace mqtt {

/// The options of a client, and the way in which the broker library gets them.
class ConnectionSettings {
public:
    /// Called by the TLS library; the last argument is the broker library's handle.
    using KeyPasswordCallback = int (*)(char* buffer, int size, int writing, void* handle);

    explicit ConnectionSettings(KeyPasswordCallback keyPassword) : keyPassword_(keyPassword) {}

    /// While no connection is wanted.
    /// @return SUCCESS; INVALID_PARAMETER: nothing has changed then
    MqttClient::Error set(ConnectionOptions const& options);

    /// Before each attempt to connect, for the thread that has the network turn.
    /// @return a reason why the library must not be called
    Failure prepare(mosqpp::mosquittopp& library) noexcept;

    /// Whether the connections are encrypted. For the thread that has the network turn.
    bool isEncrypted() const { return encryption_ != Encryption::NONE; }

    /// What a `KeyPasswordCallback` has to return.
    int writeKeyPassword(char* buffer, int size) const noexcept;

private:
    /// What the library has been told to use. It cannot be told to forget that.
    enum class Encryption : std::uint8_t { NONE, CERTIFICATES, PRE_SHARED_KEY };

    static Encryption encryptionOf(ConnectionOptions const& options);
    Failure giveCredentials(mosqpp::mosquittopp& library) const;
    Failure giveTls(mosqpp::mosquittopp& library);
    int giveCertificates(mosqpp::mosquittopp& library) const;

    KeyPasswordCallback keyPassword_;
    std::unique_ptr<ConnectionOptions const> options_; ///< null until they are set
    Encryption encryption_ = Encryption::NONE;         ///< of the options
    bool libraryHasTls_ = false;                       ///< that of the options
    std::optional<Tls::Version> librarysVersion_;      ///< the least that it has been told
};

} // namespace mqtt
