// A tank and its display on one client, with a real broker: a value of the application's own type
// is published and read, and a request is answered. The exit code is 0 when both have succeeded.
//
// Usage: consumer HOST PORT

#include "fill_level.hpp"

#include <mqtt/client.hpp>
#include <mqtt/service.hpp>
#include <zym/common/uuid.hpp>

#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using mqtt::MqttClient;
using zym::common::Uuid;

Uuid const TANK_ID(1);
Uuid const DISPLAY_ID(2);
constexpr std::chrono::seconds TIMEOUT(30);

struct Litres {
    unsigned int count = 0;
};
ZYM_MQTT_FIELDS(Litres, count)

void require(bool condition, char const* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void connect(MqttClient& client) {
    auto const result = client.connect("", -1, 30);
    std::cout << "connecting: " << result << '\n';
    require(result == MqttClient::Error::SUCCESS, "cannot connect");
}

void publishAndRead(MqttClient& client) {
    mqtt::MqttData<FillLevel> level(client, "consumer/tank");
    require(level.publishWait(FillLevel{42}) == MqttClient::Error::SUCCESS, "cannot publish");
    FillLevel received;
    require(level.waitForNext(received, TIMEOUT) == MqttClient::Error::SUCCESS,
            "no level was received");
    require(received.litres == 42, "another level was received");
    std::cout << "a value of our own type: received\n";
}

void ask(MqttClient& client) {
    mqtt::Service<Litres, Litres> const draw{"consumer/tank", "draw"};
    mqtt::Server const tank(
        client, draw, mqtt::ServerId(TANK_ID),
        [](Litres const& wanted) -> mqtt::Result<Litres> { return Litres{100 - wanted.count}; });
    require(tank.result() == MqttClient::Error::SUCCESS, "cannot serve");
    mqtt::Caller caller(client, draw, mqtt::ClientId(DISPLAY_ID), mqtt::ServerId(TANK_ID));
    auto const left = caller.callWait({7}, TIMEOUT);
    require(left && left->count == 93, "another reply was received, or none");
    std::cout << "a request: answered\n";
}

} // namespace

int main(int argc, char* argv[]) try {
    require(argc == 3, "Usage: consumer HOST PORT");
    MqttClient client(DISPLAY_ID, false, "consumer", argv[1], std::stoi(argv[2]), false);
    connect(client);
    publishAndRead(client);
    ask(client);
    return 0;
} catch (std::exception const& error) {
    std::cerr << "consumer: " << error.what() << '\n';
    return 1;
}
