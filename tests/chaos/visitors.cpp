#include "chaos/visitors.hpp"

#include "chaos/requests.hpp"

#include "support/test_client.hpp"

#include <mqtt/payloads.hpp>

namespace chaos {

Visitors::Visitors(Place& place, std::string const& name, std::string asked)
    : Party(name, place.seed),
      place_(place),
      asked_(std::move(asked)),
      port_(place.newLine().port()) {}

void Visitors::step() {
    auto const client = std::make_unique<mqtt::MqttClient>(
        support::uniqueId(), dice().percent(30), "visitor", place_.broker.host(), port_, true);
    place_.findings.count("clients made and destroyed");
    visit(*client);
    if (dice().percent(50)) {
        client->disconnect(1);
    }
    pause(0, 100);
}

void Visitors::visit(mqtt::MqttClient& client) {
    static_cast<void>(client.subscribe("chaos/#", this, 0));
    mqtt::MqttData<conv::ServiceStatus> endpoint(client, "chaos/visit");
    endpoint.subscribe(nullptr, 0);
    endpoint.publish();
    ask(client);
    pause(0, 50);
    client.release(this);
}

/// The request client goes while its request is under way, or not.
void Visitors::ask(mqtt::MqttClient& client) {
    auto const answer = std::make_shared<NumberData>();
    Ending ending(answer);
    {
        mqtt::RequestReplyClient requests(client, asked_, "sub", "number");
        auto const result = requests.request(&ending, support::uniqueId(), zym::common::Uuid::NIL,
                                             std::make_shared<NumberData>(0), answer, nullptr, 1);
        if (result != mqtt::RequestReply::ErrorCode::PENDING) {
            place_.findings.breach(name() + ": a request is not made");
        }
        pause(0, 10);
    }
    if (ending.state().times != 1) {
        place_.findings.breach(name() + ": a request ended " + std::to_string(ending.state().times)
                               + " times as its client went");
    }
}

void Visitors::onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                             std::string const& /*payload*/) {
    place_.findings.count("messages to passing visitors");
}

} // namespace chaos
