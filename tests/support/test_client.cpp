#include "support/test_client.hpp"

#include "support/eventually.hpp"

#include <unistd.h>

#include <atomic>
#include <stdexcept>

namespace support {

zym::common::Uuid uniqueId() {
    static std::atomic<unsigned> counter{0};
    auto const process = static_cast<unsigned long long>(getpid());
    return zym::common::Uuid(process << 32 | ++counter);
}

bool becomesConnected(mqtt::MqttClient const& client) {
    return eventually([&] { return client.communicationState() == conv::ComState::CONNECTED; });
}

std::unique_ptr<mqtt::MqttClient> testClient(Broker const& broker, ClientOptions const& options) {
    return testClient(broker.host(), broker.port(), options);
}

std::unique_ptr<mqtt::MqttClient> testClient(std::string const& host, int port,
                                             ClientOptions const& options) {
    auto const id = options.id == zym::common::Uuid::NIL ? uniqueId() : options.id;
    auto client = std::make_unique<mqtt::MqttClient>(id, options.persistent, "test client", host,
                                                     port, options.connect);
    if (options.connect && !becomesConnected(*client)) {
        throw std::runtime_error("The client does not get connected to " + host + ":"
                                 + std::to_string(port));
    }
    return client;
}

} // namespace support
