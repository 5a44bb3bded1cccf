#pragma once

#include "party.hpp"
#include "tally.hpp"

#include <mqtt/client.hpp>

#include <cstdint>
#include <sstream>
#include <stdexcept>

namespace bench {

constexpr std::uint32_t PATIENCE = 60;

inline void require(mqtt::MqttClient::Error result, char const* what) {
    if (result != mqtt::MqttClient::Error::SUCCESS) {
        std::ostringstream text;
        text << "our " << what << ": " << result;
        throw std::runtime_error(text.str());
    }
}

inline zym::common::Uuid nextId() {
    static unsigned long long last = 0;
    return zym::common::Uuid(++last);
}

/// A client that is disconnected in good order before it goes.
class OurClient {
public:
    explicit OurClient(int port)
        : port_(port), client_(nextId(), false, "", BROKER_HOST, port, false) {}
    ~OurClient() { client_.disconnect(PATIENCE); }
    OurClient(OurClient const&) = delete;
    OurClient& operator=(OurClient const&) = delete;

    mqtt::MqttClient* operator->() { return &client_; }
    mqtt::MqttClient& operator*() { return client_; }
    void connect() { require(client_.connect(BROKER_HOST, port_, PATIENCE), "connect"); }

    /// Subscribes, and returns when that stands: the tally counts what comes back.
    void listen(mqtt::Topic const& topic, mqtt::MqttClient::Subscriber& subscriber,
                Tally& received) {
        received.reset();
        require(client_.subscribe(topic, &subscriber, 0), "subscribe");
        require(client_.publish(topic, PROBE, 0, false), "publish");
        received.waitFor(1);
        received.reset();
    }

private:
    int const port_;
    mqtt::MqttClient client_;
};

} // namespace bench
