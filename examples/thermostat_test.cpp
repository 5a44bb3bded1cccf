// A test of an application's class, with the test kit: a broker of its own on a free port. Any test
// framework may be around it; this one needs none.
//
// Usage: thermostat_test

#include <mqtt/fields.hpp>
#include <mqtt/test/test_client.hpp>

#include <chrono>
#include <iostream>
#include <utility>

struct Temperature {
    double celsius = 0;
};
ZYM_MQTT_VALUE(Temperature, "temperature", 1, true, celsius)
struct Heater {
    bool on = false;
};
ZYM_MQTT_VALUE(Heater, "heater", 1, true, on)

/// What is tested: switches the heater of a room on below 20 degrees.
class Thermostat {
public:
    Thermostat(mqtt::MqttClient& client, mqtt::Topic const& room)
        : heater_(client, room), temperature_(client, room) {}

private:
    mqtt::MqttData<Heater> heater_;
    mqtt::MqttData<Temperature> temperature_;
    mqtt::Subscription<Temperature> const changes_ =
        temperature_.subscribe([this](Temperature const& now, bool empty) {
            heater_.publish({!empty && now.celsius < 20});
        });
};

int main() {
    mqtt::test::Broker const broker; // ends with this object
    auto const client = mqtt::test::testClient(broker);
    Thermostat const thermostat(*client, "room");

    auto const tester = mqtt::test::testClient(broker);
    mqtt::MqttData<Temperature> temperature(*tester, "room");
    mqtt::MqttData<Heater> heater(*tester, "room");
    for (auto const& [celsius, on] : {std::pair(15.0, true), {25.0, false}}) {
        temperature.publish({celsius});
        Heater found;
        auto const isExpected = [expected = on](Heater const& now) { return now.on == expected; };
        auto const result = heater.waitFor(found, isExpected, std::chrono::seconds(30));
        if (result != mqtt::MqttClient::Error::SUCCESS) {
            std::cout << "failed at " << celsius << " degrees: " << result << std::endl;
            return 1;
        }
    }
    std::cout << "passed" << std::endl;
}
