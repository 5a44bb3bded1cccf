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
#include "entity.hpp"
#include "plant.hpp"
#include "program.hpp"
#include "tank.hpp"

#include <mqtt/client.hpp>
#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/time_base.hpp>

#include <chrono>
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

/// The plant's time: it answers requests for it. A time base counts from a moment that the server
/// chooses: here from the start of the device. Construct it before the client is connected: a
/// request during its construction would call a virtual function too early.
class Clock final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    explicit Clock(MqttClient& client) : SynchronizedTimeBaseMqttAdaptor(client, PLANT, PLANT_ID) {}
    /// Waits for a request being handled before any member is destroyed.
    ~Clock() override { release(); }

    double localTimeBase() const override { return machineTime() - start_; }

    /// The time of this machine's clock when the plant's time was zero.
    double start() const { return start_; }

private:
    double machineTime() const { return SynchronizedTimeBaseMqttAdaptor::localTimeBase(); }

    double const start_ = machineTime();
};

class Plant final : public MqttClient::Listener {
public:
    /// Starts the services. Construct it before the client is connected: a will cannot be set
    /// later, and the services must answer when the plant reports that it is connected.
    explicit Plant(MqttClient& client)
        : client_(client),
          communication_(client, PLANT),
          links_(client, PLANT),
          pump_(client, PUMP_ID, "pump"),
          valve_(client, VALVE_ID, "valve"),
          binding_(client),
          tank_(client, binding_),
          clock_(client) {
        links_.value = {tank_.link(), pump_.link(), valve_.link()};
        communication_.value = {ComState::CONNECTION_LOST, conv::UnixTime()};
        communication_.setCurrentValueAsWill();
        client_.registerListener(this);
        printLine("the clock was started at " + std::to_string(clock_.start()));
    }
    ~Plant() { client_.unregisterListener(this); }
    Plant(Plant const&) = delete;
    Plant& operator=(Plant const&) = delete;

    /// Publishes everything with every connection: the will may have replaced the status, and a
    /// restarted broker may have lost all values. The communication status comes last: a reader
    /// that sees the plant connected finds the rest.
    void onComStateChanged(ComState state) override {
        printLine(textOf(state));
        if (state == ComState::CONNECTED) {
            links_.publish();
            tank_.publish();
            pump_.publish();
            valve_.publish();
            communication_.publish({state, now()});
        }
    }

    void publishDisconnected() {
        tank_.close();
        communication_.publishWait({ComState::DISCONNECTED, now()});
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

int main(int argc, char* argv[]) {
    auto const broker = brokerFrom(argc, argv, "device");

    MqttClient client(PLANT_ID, false, "device", broker.host, broker.port, false, broker.options);
    Plant plant(client);
    if (!connect(client)) {
        return 1;
    }
    waitForEndOf(std::cin);
    plant.publishDisconnected();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
}
