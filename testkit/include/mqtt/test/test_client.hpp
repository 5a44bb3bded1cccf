#pragma once

#include "mqtt/test/broker.hpp"
#include "mqtt/test/eventually.hpp"

#include <mqtt/client.hpp>
#include <zym/common/uuid.hpp>

#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

namespace mqtt::test {

struct ClientOptions {
    bool persistent = false;
    bool connect = true;                           ///< and wait until it is connected
    zym::common::Uuid id = zym::common::Uuid::NIL; ///< NIL: one that no other client has
    ConnectionOptions connection{};                ///< those of a `Broker` if it is given
};

/// An identifier that no other test uses at the same time.
inline zym::common::Uuid uniqueId() {
    static std::atomic<unsigned> counter{0};
    return zym::common::Uuid(static_cast<unsigned long long>(getpid()) << 32 | ++counter);
}

/// Whether the client is connected, or becomes so.
inline bool becomesConnected(mqtt::MqttClient const& client) {
    return eventually([&] { return client.communicationState() == conv::ComState::CONNECTED; });
}

/// A client of what is or resembles a broker.
/// @throws std::runtime_error when it does not get connected
inline std::unique_ptr<mqtt::MqttClient> testClient(std::string const& host, int port,
                                                    ClientOptions const& options = {}) {
    auto const id = options.id == zym::common::Uuid::NIL ? uniqueId() : options.id;
    auto client = std::make_unique<mqtt::MqttClient>(id, options.persistent, "test client", host,
                                                     port, options.connect, options.connection);
    if (options.connect && !becomesConnected(*client)) {
        throw std::runtime_error("The client does not get connected to " + host + ":"
                                 + std::to_string(port));
    }
    return client;
}

inline std::unique_ptr<mqtt::MqttClient> testClient(Broker const& broker,
                                                    ClientOptions options = {}) {
    options.connection = broker.connectionOptions();
    return testClient(broker.host(), broker.port(), options);
}

} // namespace mqtt::test
