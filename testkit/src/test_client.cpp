#include "mqtt/test/test_client.hpp"

#include "mqtt/test/eventually.hpp"

#include <unistd.h>

#include <atomic>
#include <stdexcept>

namespace mqtt::test {

zym::common::Uuid uniqueId() {
    static std::atomic<unsigned> counter{0};
    return zym::common::Uuid(static_cast<unsigned long long>(getpid()) << 32 | ++counter);
}

bool becomesConnected(mqtt::MqttClient const& client) {
    return eventually([&] { return client.communicationState() == conv::ComState::CONNECTED; });
}

std::unique_ptr<mqtt::MqttClient> testClient(Address const& address, ClientOptions const& options) {
    auto const id = options.id == zym::common::Uuid::NIL ? uniqueId() : options.id;
    auto connection = options.connection;
    if (address.credentials) {
        connection.credentials = address.credentials;
    }
    auto client =
        std::make_unique<mqtt::MqttClient>(id, options.persistent, "test client", address.host,
                                           address.port, options.connect, connection);
    if (options.connect && !becomesConnected(*client)) {
        throw std::runtime_error("The client does not get connected to " + address.host + ":"
                                 + std::to_string(address.port));
    }
    return client;
}

std::unique_ptr<mqtt::MqttClient> testClient(std::string const& host, int port,
                                             ClientOptions const& options) {
    return testClient(Address{host, port}, options);
}

std::unique_ptr<mqtt::MqttClient> testClient(Broker const& broker, ClientOptions options) {
    options.connection = broker.connectionOptions();
    return testClient(broker.host(), broker.port(), options);
}

} // namespace mqtt::test
