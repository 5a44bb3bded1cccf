#pragma once

#include "support/broker.hpp"

#include <mqtt/client.hpp>
#include <zym/common/uuid.hpp>

#include <memory>
#include <string>

namespace support {

struct ClientOptions {
    bool persistent = false;
    bool connect = true;                           ///< and wait until it is connected
    zym::common::Uuid id = zym::common::Uuid::NIL; ///< NIL: one that no other client has
};

/// An identifier that no other test uses at the same time.
zym::common::Uuid uniqueId();

/// Whether the client is connected, or becomes so.
bool becomesConnected(mqtt::MqttClient const& client);

/// A client for a broker.
/// @throws std::runtime_error when it does not get connected
std::unique_ptr<mqtt::MqttClient> testClient(Broker const& broker,
                                             ClientOptions const& options = {});
/// The same for what only looks like a broker: a scripted server, a proxy.
std::unique_ptr<mqtt::MqttClient> testClient(std::string const& host, int port,
                                             ClientOptions const& options = {});

} // namespace support
