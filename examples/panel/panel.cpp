// The panel of the water works: finds out what the plant consists of, watches it, binds itself to
// it, reads its clock and draws water. It survives a restart of the broker, waits until the plant
// is gone, erases what it has left at the broker and checks that this is so.
//
// Read plant.hpp first, then `main` at the end of this file, and the headers beside it as they
// come up.
//
// Usage: panel [HOST [PORT]]

#include "cleaning.hpp"
#include "console.hpp"
#include "drawing.hpp"
#include "plant.hpp"
#include "verification.hpp"
#include "watch.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/client.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>

#include <deque>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

using mqtt::MqttClient;
using BinderError = zym::common::Binder::Error;

namespace {

/// Replies go to a topic that ends in who asked: the binder asks for the time too, so who asks
/// beside it goes by another name.
Uuid const TIME_READER_ID(41);

void require(bool fulfilled, char const* what) {
    if (!fulfilled) {
        throw std::runtime_error(what);
    }
}

/// Reads the links of the plant, then the identification of each entity, and watches them all.
void discover(MqttClient& client, std::deque<EntityWatch>& watches) {
    mqtt::ServiceDiscovererMqtt discoverer(client, PLANT);
    require(discoverer.discoverSync(5, true), "the plant does not say what it consists of");

    auto const links = discoverer.links();
    auto const entities = discoverer.entities(); // one for each link, in the same order
    for (std::size_t i = 0; i < links.size(); ++i) {
        say("found the " + entities[i].name + " by " + entities[i].manufacturer + " at "
            + links[i].id);
        watches.emplace_back(client, links[i].id, entities[i].name);
    }
}

/// A binding is complete when the server has agreed and its time is known.
void bind(mqtt::BinderMqttProxy& binder) {
    require(binder.bindSync(PLANT_ID, 5) == BinderError::SUCCESS, "the plant does not bind us");
    say("bound; by the clock of the plant it is " + std::to_string(binder.timeBase()) + " s");
}

void unbind(mqtt::BinderMqttProxy& binder) {
    require(binder.unbindSync(5) == BinderError::SUCCESS, "the plant does not let us go");
    say("not bound any more");
}

/// The same once more without a binding, and in full.
void compareClocks(MqttClient& client) {
    mqtt::SynchronizedTimeBaseMqttProxy plant(client, PLANT, TIME_READER_ID, nullptr);
    require(plant.synchronize(PLANT_ID, 10), "the plant does not tell the time");
    std::ostringstream text;
    text << std::fixed << "the clock of the plant: " << plant.timeBase()
         << " s; ours: " << plant.localTimeBase() << " s; the plant is " << plant.offset()
         << " s behind";
    say(text.str());
}

} // namespace

int main(int argc, char* argv[]) try {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;

    // The client first, and so the last to go: all else is built on it.
    MqttClient client(PANEL_ID, false, "panel", host, port, false);
    PlantWatch plant(client);
    std::deque<EntityWatch> entities;
    mqtt::BinderMqttProxy binder(client, PLANT, mqtt::Topic(), PANEL_ID, PANEL, nullptr);
    Drawing tank(client);

    auto const result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot watch at " << host << ':' << port << ": " << result << '\n';
        return 1;
    }

    plant.waitUntilThere();
    Verification verification(client, host, port);
    verification.verifyLinks();
    discover(client, entities);

    tank.draw(60); // not bound yet
    bind(binder);
    compareClocks(client);
    tank.draw(60);
    tank.draw(60); // more than is left
    tank.drawFromNobody();
    tank.drawAndThinkBetterOfIt();

    say("now restart the broker");
    plant.waitUntilTheBrokerWasLost();
    plant.waitUntilThere();
    tank.draw(10); // the binding has survived, and so has the water
    unbind(binder);
    tank.draw(10);

    say("now stop the device");
    plant.waitUntilGone();
    cleanUp(host, port);
    verification.verifyThatAllIsClean();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
