// The panel of the water works: finds the entities of the plant, observes them, binds itself to the
// plant, reads its clock and draws water. It survives a restart of the broker, waits until the
// plant has disconnected, erases the retained messages of the plant and checks that none is left.
//
// Read plant.hpp first, then `main` at the end of this file, then the headers beside it as `main`
// uses them.
//
// Usage: panel [HOST [PORT]]

#include "observers.hpp"
#include "plant.hpp"
#include "program.hpp"
#include "retained.hpp"
#include "tank_user.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/client.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>

#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using mqtt::MqttClient;
using BinderError = zym::common::Binder::Error;
using Observers = std::vector<mqtt::Subscription<conv::ServiceStatus>>;

namespace {

/// The topic of a reply ends with the identifier of the client. The binder requests the time too,
/// so a second reader of the time needs another identifier.
Uuid const TIME_READER_ID(41);

void require(bool fulfilled, char const* what) {
    if (!fulfilled) {
        throw std::runtime_error(what);
    }
}

/// Reads the links of the plant, then the identification of each entity, and observes all entities.
Observers discover(MqttClient& client) {
    mqtt::ServiceDiscovererMqtt discoverer(client, PLANT);
    require(discoverer.discoverSync(5, true), "the plant does not say what it consists of");

    Observers observers;
    auto const links = discoverer.links();
    auto const entities = discoverer.entities(); // one for each link, in the same order
    for (std::size_t i = 0; i < links.size(); ++i) {
        printLine("found the " + entities[i].name + " by " + entities[i].manufacturer + " at "
                  + links[i].id);
        observers.push_back(observeEntity(client, links[i].id, entities[i].name));
    }
    return observers;
}

/// A binding is complete when the server has agreed and its time is known.
void bind(mqtt::BinderMqttProxy& binder) {
    require(binder.bindSync(PLANT_ID, 5) == BinderError::SUCCESS, "the plant does not bind us");
    printLine("bound; by the clock of the plant it is " + std::to_string(binder.timeBase()) + " s");
}

void unbind(mqtt::BinderMqttProxy& binder) {
    require(binder.unbindSync(5) == BinderError::SUCCESS, "the plant does not let us go");
    printLine("not bound any more");
}

/// Reads the time without a binding, and prints it in full.
void compareClocks(MqttClient& client) {
    mqtt::SynchronizedTimeBaseMqttProxy plant(client, PLANT, TIME_READER_ID, nullptr);
    require(plant.synchronize(PLANT_ID, 10), "the plant does not tell the time");
    std::ostringstream text;
    text << std::fixed << "the clock of the plant: " << plant.timeBase()
         << " s; ours: " << plant.localTimeBase() << " s; the plant is " << plant.offset()
         << " s behind";
    printLine(text.str());
}

} // namespace

int main(int argc, char* argv[]) try {
    auto const broker = brokerFrom(argc, argv, "panel");

    // Declared first and so destroyed last: the others use it.
    MqttClient client(PANEL_ID, false, "panel", broker.host, broker.port, false, broker.options);
    ConnectionObserver connection(client);
    mqtt::BinderMqttProxy binder(client, PLANT, mqtt::Topic(), PANEL_ID, PANEL, nullptr);
    TankUser tank(client);
    if (!connect(client)) {
        return 1;
    }

    waitForPlant(client, true);
    RetainedValues retained(broker);
    retained.verifyLinks(client);
    auto const observers = discover(client);

    tank.draw(60); // not bound yet
    bind(binder);
    compareClocks(client);
    tank.draw(60);
    tank.draw(60); // more than is left
    tank.drawFromAbsentServer();
    tank.drawAndCancel();

    printLine("now restart the broker");
    connection.waitUntilLost();
    waitForPlant(client, true);
    tank.draw(10); // the device has kept the binding and the water
    unbind(binder);
    tank.draw(10);

    printLine("now stop the device");
    waitForPlant(client, false);
    retained.erase();
    retained.verifyErased();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
