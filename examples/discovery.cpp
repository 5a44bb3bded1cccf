// A device publishes what it consists of, and a panel finds it. In an application the two sides are
// different programs, each with a client of its own.
//
// Usage: discovery [HOST [PORT]]

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>

#include <iostream>
#include <string>

using zym::common::Uuid;

int main(int argc, char* argv[]) {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;
    mqtt::MqttClient client(Uuid(14), false, "", host, port, true);
    mqtt::Topic const device = "demo/pumps";

    // The device: the identification of its only entity, and links to all its entities. The broker
    // retains both.
    Uuid const pumpId(15);
    mqtt::Topic const pump = device + pumpId;
    conv::Identification self;
    self.uuid = pumpId.to_string();
    self.manufacturer = "Pumps & Sons";
    self.name = "pump";
    mqtt::MqttData<conv::Identification> identification(client, pump);
    identification.publish(self);
    mqtt::MqttDataCollection<mqtt::Link> links(client, device);
    links.publish({{pump.text()}});

    // The panel: knows the topic of the device only.
    mqtt::ServiceDiscovererMqtt discoverer(client, device);
    if (!discoverer.discoverSync(5, true)) {
        std::cout << "the device does not say what it consists of" << std::endl;
        return 1;
    }
    auto const found = discoverer.links();
    auto const entities = discoverer.entities(); // one for each link, in the same order
    for (std::size_t i = 0; i < found.size(); ++i) {
        std::cout << "found the " << entities[i].name << " by " << entities[i].manufacturer
                  << " at " << found[i].id << std::endl;
    }
}
