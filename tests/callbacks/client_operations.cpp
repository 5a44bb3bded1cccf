#include "operations.hpp"

#include <mqtt/connection_options.hpp>

using Error = mqtt::MqttClient::Error;
using Lock = mqtt::MqttDataBase::Lock;
using Test = CallbackTest;

namespace {

bool deliversMessages(Test& t) {
    return t.causes("message " + t.topic("x"), t.topic("x"), "text");
}

bool reachesPeer(Test& t) {
    return t.peerReceives(t.topic("x"), "hello");
}

bool isConnected(Test& t) {
    bool const connected = mqtt::test::becomesConnected(*t.client);
    t.flush();
    return connected;
}

bool isDisconnected(Test& t) {
    return mqtt::test::eventually(
        [&] { return t.client->communicationState() == conv::ComState::DISCONNECTED; });
}

Error setWill(Test& t) {
    return t.client->setWill(t.topic("x"), "hello", 0, false);
}

bool leavesWill(Test& t) {
    t.destroyConnectedClient();
    return reachesPeer(t);
}

bool leavesNoWill(Test& t) {
    t.destroyConnectedClient();
    t.peer.publish(t.topic("last"), "hello");
    auto const all = t.peer.messages();
    return std::none_of(all.begin(), all.end(),
                        [&](auto const& message) { return message.topic == t.topic("x"); });
}

bool tellsListenerOnce(Test& t) {
    t.events.clear();
    EXPECT_EQ(t.client->disconnect(TIMEOUT_S), Error::SUCCESS);
    return t.events.count("state 1") == 1;
}

void pauseAndResume(Test& t) {
    t.client->pause();
    t.client->resume();
}

bool goesOnAfterPause(Test& t) {
    t.client->resume();
    t.flush();
    return true;
}

mqtt::MqttData<mqtt::Link>& endpointWithValue(Test& t) {
    Lock const lock(t.objects.endpoint->mutex());
    t.objects.endpoint->value.id = "mine";
    return *t.objects.endpoint;
}

Error unsubscribeEndpoint(Test& t) {
    Lock lock(t.objects.endpoint->mutex());
    return t.objects.endpoint->unsubscribeWait(lock);
}

bool deliversValues(Test& t) {
    return t.causes("value new", t.topic("value"), R"({"@id": "new"})");
}

bool valueReachesPeer(Test& t) {
    return t.peerReceives(t.topic("value"), "{\n  \"@id\": \"mine\"\n}");
}

bool leavesValueAsWill(Test& t) {
    t.destroyConnectedClient();
    return valueReachesPeer(t);
}

bool cleansValue(Test& t) {
    return t.peerReceives(t.topic("value"), "");
}

} // namespace

Operations clientOperations() {
    auto const subscribed = done("MqttClient/subscribe");
    auto const dataSubscribed = done("MqttData/subscribe");
    return {
        {"MqttClient/publish",
         [](Test& t) { return t.client->publish(t.topic("x"), "hello", 2, false); }, reachesPeer},
        {"MqttClient/publishWait",
         [](Test& t) { return t.client->publishWait(t.topic("x"), "hello", 2, false, t.timeoutS); },
         reachesPeer},
        {"MqttClient/clear", [](Test& t) { return t.client->clear(t.topic("x")); },
         [](Test& t) { return t.peerReceives(t.topic("x"), ""); },
         [](Test& t) { t.peer.publish(t.topic("x"), "hello", 2, true); }},
        {"MqttClient/subscribe",
         [](Test& t) { return t.client->subscribe(t.topic("x"), &t.events, 1); }, deliversMessages},
        {"MqttClient/unsubscribe",
         [](Test& t) { return t.client->unsubscribe(t.topic("x"), &t.events); },
         no(deliversMessages), subscribed},
        {"MqttClient/unsubscribeWait",
         [](Test& t) { return t.client->unsubscribeWait(t.topic("x"), &t.events, t.timeoutS); },
         no(deliversMessages), subscribed, Kind::WAITS_FOR_THE_BROKER},
        {"MqttClient/release", [](Test& t) { t.client->release(&t.events); }, no(deliversMessages),
         subscribed},
        {"MqttClient/registerListener", [](Test& t) { t.client->registerListener(&t.events); },
         tellsListenerOnce},
        {"MqttClient/unregisterListener", [](Test& t) { t.client->unregisterListener(&t.events); },
         no(tellsListenerOnce), [](Test& t) { t.client->registerListener(&t.events); }},
        {"MqttClient/communicationState",
         [](Test& t) {
             return holds(t.client->communicationState() == conv::ComState::CONNECTED);
         }},
        {"MqttClient/connect", [](Test& t) { return t.client->connect("", -1, t.timeoutS); },
         isConnected},
        {"MqttClient/disconnect", [](Test& t) { return t.client->disconnect(t.timeoutS); },
         isDisconnected},
        {"MqttClient/disconnect(0)",
         [](Test& t) { // SUCCESS or TIMEOUT, whichever is first
             auto const error = t.client->disconnect(0);
             return error == Error::TIMEOUT ? Error::SUCCESS : error;
         },
         isDisconnected},
        {"MqttClient/giveUp", [](Test& t) { t.client->giveUp(); }, isDisconnected},
        {"MqttClient/pause", [](Test& t) { t.client->pause(); }, goesOnAfterPause},
        {"MqttClient/resume", pauseAndResume, goesOnAfterPause},
        {"MqttClient/setWill", setWill, leavesWill},
        {"MqttClient/clearWill", [](Test& t) { return t.client->clearWill(); }, leavesNoWill,
         setWill},
        {"MqttClient/setOptions",
         [](Test& t) { return t.client->setOptions(device().broker.connectionOptions()); }},
        {"MqttClient/lastFailure",
         [](Test& t) {
             return holds(t.client->lastFailure().reason == mqtt::Failure::Reason::NONE);
         }},
        {"MqttClient/statistics",
         [](Test& t) { return holds(t.client->statistics().dropped.rejected == 0); }},
        {"MqttClient/destroy", [](Test& t) { t.destroyClient(); }},

        {"MqttData/publish", [](Test& t) { endpointWithValue(t).publish(); }, valueReachesPeer},
        {"MqttData/publishWait", [](Test& t) { endpointWithValue(t).publishWait(); },
         valueReachesPeer, nothing, Kind::SUCCEEDS_IN_VAIN},
        {"MqttData/clean", [](Test& t) { return t.objects.endpoint->clean(); }, cleansValue},
        {"MqttData/cleanWait", [](Test& t) { return t.objects.endpoint->cleanWait(); },
         cleansValue},
        {"MqttData/setCurrentValueAsWill",
         [](Test& t) { return endpointWithValue(t).setCurrentValueAsWill(); }, leavesValueAsWill},
        {"MqttData/subscribe", [](Test& t) { return t.objects.endpoint->subscribe(&t.events, 2); },
         deliversValues},
        {"MqttData/unsubscribe", [](Test& t) { return t.objects.endpoint->unsubscribe(); },
         no(deliversValues), dataSubscribed},
        {"MqttData/unsubscribeWait", unsubscribeEndpoint, no(deliversValues), dataSubscribed,
         Kind::WAITS_FOR_THE_BROKER},
        {"MqttData/release", [](Test& t) { t.objects.endpoint->release(); }, no(deliversValues),
         dataSubscribed},
        {"MqttData/destroy", [](Test& t) { t.objects.endpoint.reset(); }, no(deliversValues),
         dataSubscribed},
    };
}
