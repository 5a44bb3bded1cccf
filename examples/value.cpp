// A value of an application's own type: published, read, waited for, and received by a function.
//
// Usage: value [HOST [PORT]]

#include <mqtt/fields.hpp>

#include <chrono>
#include <iostream>
#include <string>

struct Reading {
    double value = 0;
    std::string unit;
};
// Published on the level "reading" below the endpoint's topic, at QoS 2, retained, with two
// members.
ZYM_MQTT_VALUE(Reading, "reading", 2, true, value, unit)

int main(int argc, char* argv[]) {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;
    mqtt::MqttClient client(zym::common::Uuid(11), false, "", host, port, true);
    mqtt::MqttData<Reading> cellar(client, "demo/cellar");

    // The function is called on the client's own thread, until `printer` is destroyed.
    auto const printer = cellar.subscribe([](Reading const& reading, bool empty) {
        if (!empty) { // an empty message: the value was erased
            std::cout << "received " << reading.value << ' ' << reading.unit << std::endl;
        }
    });
    cellar.publish({12.5, "C"});
    std::cout << "published " << cellar.get().value << std::endl;

    Reading warm;
    auto const isWarm = [](Reading const& reading) { return reading.value > 10; };
    auto const result = cellar.waitFor(warm, isWarm, std::chrono::seconds(5));
    std::cout << "waited for " << warm.value << ": " << result << std::endl;
    cellar.cleanWait(); // the broker erases the retained value
    return result == mqtt::MqttClient::Error::SUCCESS ? 0 : 1;
}
