#pragma once

#include "mqtt/test/address.hpp"
#include "mqtt/test/broker.hpp"

#include <mqtt/client.hpp>
#include <zym/common/uuid.hpp>

#include <memory>
#include <string>

namespace mqtt::test {

struct ClientOptions {
    bool persistent = false;
    bool connect = true;                           ///< and wait until it is connected
    zym::common::Uuid id = zym::common::Uuid::NIL; ///< NIL: one that no other client has
    ConnectionOptions connection{};                ///< those of the `Broker` if one is given
};

/// An identifier that no other test on this machine uses at the same time.
zym::common::Uuid uniqueId();

/// Whether the client is connected, or becomes so within 30 seconds.
bool becomesConnected(mqtt::MqttClient const& client);

/// A client of what is or resembles a broker.
/// @throws std::runtime_error when it does not get connected
std::unique_ptr<mqtt::MqttClient> testClient(Address const& address,
                                             ClientOptions const& options = {});
std::unique_ptr<mqtt::MqttClient> testClient(std::string const& host, int port,
                                             ClientOptions const& options = {});
/// Encrypted if the broker is.
std::unique_ptr<mqtt::MqttClient> testClient(Broker const& broker, ClientOptions options = {});

} // namespace mqtt::test
