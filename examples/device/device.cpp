// The device: a small water works with a tank, a pump and a valve. It publishes its entities and
// their status, binds one panel at a time, reports its time and hands out water, until its standard
// input ends. When it ends without disconnecting, the broker publishes its will: the connection is
// lost.
//
// Read plant.hpp first, then this file, then the headers beside it in the order of the members of
// Plant.
//
// Usage: device [HOST [PORT]]

#include "binding.hpp"
#include "broker_address.hpp"
#include "clock.hpp"
#include "console.hpp"
#include "entity.hpp"
#include "plant.hpp"
#include "tank.hpp"

#include <mqtt/client.hpp>
#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <chrono>
#include <exception>
#include <iostream>
#include <limits>
#include <string>

using conv::ComState;
using mqtt::MqttClient;

namespace {

conv::UnixTime now() {
    auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return conv::UnixTime(std::chrono::duration<double>(sinceEpoch).count());
}

class Plant final : public MqttClient::Listener {
public:
    /// Construct it before the client is connected: a will cannot be set later.
    explicit Plant(MqttClient& client)
        : client_(client),
          communication_(client, PLANT),
          links_(client, PLANT),
          pump_(client, PUMP_ID, "pump"),
          valve_(client, VALVE_ID, "valve"),
          binding_(client),
          tank_(client, binding_),
          clock_(client) {
        set(links_, {tank_.entity().link(), pump_.link(), valve_.link()});
        set(communication_, {ComState::CONNECTION_LOST, conv::UnixTime()});
        communication_.setCurrentValueAsWill();
        client_.registerListener(this);
        printLine("the clock was started at " + std::to_string(clock_.start()));
    }
    ~Plant() { client_.unregisterListener(this); }
    Plant(Plant const&) = delete;
    Plant& operator=(Plant const&) = delete;

    MqttClient::Error serve() {
        auto const result = binding_.serve();
        return result == MqttClient::Error::SUCCESS ? tank_.serve() : result;
    }

    /// Publishes everything with every connection: the will may have replaced the status, and a
    /// restarted broker may have lost all values. The communication status comes last: a reader
    /// that sees the plant connected finds the rest.
    void onComStateChanged(ComState state) override {
        printLine(textOf(state));
        if (state == ComState::CONNECTED) {
            links_.publish();
            tank_.entity().publish();
            pump_.publish();
            valve_.publish();
            set(communication_, {state, now()});
            communication_.publish();
        }
    }

    void publishDisconnected() {
        tank_.close();
        set(communication_, {ComState::DISCONNECTED, now()});
        communication_.publishWait();
    }

private:
    MqttClient& client_;
    mqtt::MqttData<conv::CommunicationStatus> communication_;
    mqtt::MqttDataCollection<mqtt::Link> links_;
    Entity pump_;
    Entity valve_;
    Binding binding_;
    Tank tank_;
    Clock clock_;
};

void waitForEndOf(std::istream& input) {
    input.ignore(std::numeric_limits<std::streamsize>::max());
}

} // namespace

int main(int argc, char* argv[]) try {
    auto const broker = brokerFrom(argc, argv, "device");

    MqttClient client(PLANT_ID, false, "device", broker.host, broker.port, false, broker.options);
    Plant plant(client);

    // The services start before the plant reports that it is connected.
    auto result = plant.serve();
    if (result == MqttClient::Error::SUCCESS) {
        result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    }
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot serve at " << broker.host << ':' << broker.port << ": " << result
                  << '\n'
                  << client.lastFailure() << '\n';
        return 1;
    }

    waitForEndOf(std::cin);
    plant.publishDisconnected();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
