#include "operations.hpp"

#include <mqtt/connection_options.hpp>

using Error = mqtt::MqttClient::Error;
using Test = CallbackTest;

namespace {

std::string const LINK = R"({"@id": "new"})";

void subscribeRecorder(Test& t) {
    EXPECT_EQ(t.client->subscribe(t.topic("x"), &t.events, 1), Error::SUCCESS);
    EXPECT_TRUE(t.causes("message " + t.topic("x"), t.topic("x"), "before"));
}

void expectDelivery(Test& t) {
    EXPECT_TRUE(t.causes("message " + t.topic("x"), t.topic("x"), "after"));
}

void expectNoDelivery(Test& t) {
    EXPECT_FALSE(t.causes("message " + t.topic("x"), t.topic("x"), "after"));
}

void expectAtPeer(Test& t) {
    EXPECT_TRUE(t.peerReceives(t.topic("x"), "hello"));
}

void expectConnected(Test& t) {
    EXPECT_TRUE(support::becomesConnected(*t.client));
    t.flush();
}

void expectDisconnected(Test& t) {
    EXPECT_TRUE(support::eventually(
        [&] { return t.client->communicationState() == conv::ComState::DISCONNECTED; }));
}

Error setWill(Test& t) {
    return t.client->setWill(t.topic("x"), "hello", 0, false);
}

void prepareWill(Test& t) {
    if (t.verdict != Verdict::REFUSED) {
        EXPECT_EQ(setWill(t), Error::SUCCESS);
    }
}

void expectWill(Test& t) {
    t.destroyConnectedClient();
    expectAtPeer(t);
}

void expectNoWill(Test& t) {
    t.destroyConnectedClient();
    t.peer.publish(t.topic("last"), "hello");
    EXPECT_EQ(t.countAtPeer(t.topic("x")), 0U);
}

void registerListener(Test& t) {
    t.client->registerListener(&t.events);
}

void expectCallsAtDisconnection(Test& t, std::size_t times) {
    t.events.clear();
    EXPECT_EQ(t.client->disconnect(TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(t.events.count("state 1"), times);
}

void pauseAndResume(Test& t) {
    t.client->pause();
    t.client->resume();
}

void resumeAndFlush(Test& t) {
    t.client->resume();
    t.flush();
}

void setValue(Test& t) {
    mqtt::MqttDataBase::Lock const lock(t.objects.endpoint->mutex());
    t.objects.endpoint->value.id = "mine";
}

void publishValue(Test& t) {
    setValue(t);
    t.objects.endpoint->publish();
}

void publishValueWait(Test& t) {
    setValue(t);
    t.objects.endpoint->publishWait();
}

Error makeValueTheWill(Test& t) {
    setValue(t);
    return t.objects.endpoint->setCurrentValueAsWill();
}

void subscribeEndpoint(Test& t) {
    auto& endpoint = *t.objects.endpoint;
    if (!t.sameObject) {
        EXPECT_EQ(endpoint.subscribe(&t.events, 1), Error::SUCCESS);
        EXPECT_TRUE(t.causes("value new", t.topic("value"), LINK));
    }
}

Error unsubscribeEndpoint(Test& t) {
    mqtt::MqttDataBase::Lock lock(t.objects.endpoint->mutex());
    return t.objects.endpoint->unsubscribeWait(lock);
}

void expectValue(Test& t) {
    EXPECT_TRUE(t.causes("value new", t.topic("value"), LINK));
}

void expectNoValue(Test& t) {
    EXPECT_FALSE(t.causes("value new", t.topic("value"), LINK));
}

void expectValueAtPeer(Test& t) {
    EXPECT_TRUE(t.peerReceives(t.topic("value"), "{\n  \"@id\": \"mine\"\n}"));
}

void expectCleaned(Test& t) {
    EXPECT_TRUE(t.peerReceives(t.topic("value"), ""));
}

void expectValueAsWill(Test& t) {
    t.destroyConnectedClient();
    expectValueAtPeer(t);
}

} // namespace

Operations clientOperations() {
    return {
        {"MqttClient/publish", nothing,
         [](Test& t) { return t.client->publish(t.topic("x"), "hello", 2, false); }, expectAtPeer},
        {"MqttClient/publishWait", nothing,
         [](Test& t) { return t.client->publishWait(t.topic("x"), "hello", 2, false, HOUR_S); },
         expectAtPeer},
        {"MqttClient/clear", [](Test& t) { t.peer.publish(t.topic("x"), "hello", 2, true); },
         [](Test& t) { return t.client->clear(t.topic("x")); },
         [](Test& t) { EXPECT_TRUE(t.peerReceives(t.topic("x"), "")); }},
        {"MqttClient/subscribe", nothing,
         [](Test& t) { return t.client->subscribe(t.topic("x"), &t.events, 1); }, expectDelivery},
        {"MqttClient/unsubscribe", subscribeRecorder,
         [](Test& t) { return t.client->unsubscribe(t.topic("x"), &t.events); }, expectNoDelivery},
        {"MqttClient/unsubscribeWait", subscribeRecorder,
         [](Test& t) { return t.client->unsubscribeWait(t.topic("x"), &t.events, TIMEOUT_S); },
         expectNoDelivery, Kind::WAITS_FOR_THE_BROKER},
        {"MqttClient/release", subscribeRecorder, [](Test& t) { t.client->release(&t.events); },
         expectNoDelivery},
        {"MqttClient/registerListener", nothing, registerListener,
         [](Test& t) { expectCallsAtDisconnection(t, 1); }},
        {"MqttClient/unregisterListener", registerListener,
         [](Test& t) { t.client->unregisterListener(&t.events); },
         [](Test& t) { expectCallsAtDisconnection(t, 0); }},
        {"MqttClient/communicationState", nothing,
         [](Test& t) { return t.client->communicationState() == conv::ComState::CONNECTED; },
         nothing},
        {"MqttClient/connect", nothing,
         [](Test& t) { return t.client->connect("", -1, TIMEOUT_S); }, expectConnected,
         Kind::WHILE_DISCONNECTED},
        {"MqttClient/disconnect", nothing, [](Test& t) { return t.client->disconnect(HOUR_S); },
         expectDisconnected},
        {"MqttClient/disconnect(0)", nothing,
         [](Test& t) { // SUCCESS or TIMEOUT, whichever is first
             auto const error = t.client->disconnect(0);
             return error == Error::TIMEOUT ? Error::SUCCESS : error;
         },
         expectDisconnected},
        {"MqttClient/giveUp", nothing, [](Test& t) { t.client->giveUp(); }, expectDisconnected},
        {"MqttClient/pause", nothing, [](Test& t) { t.client->pause(); }, resumeAndFlush},
        {"MqttClient/resume", nothing, pauseAndResume, resumeAndFlush},
        {"MqttClient/setWill", nothing, setWill, expectWill, Kind::WHILE_DISCONNECTED},
        {"MqttClient/clearWill", prepareWill, [](Test& t) { return t.client->clearWill(); },
         expectNoWill, Kind::WHILE_DISCONNECTED},
        {"MqttClient/setOptions", nothing, [](Test& t) { return t.client->setOptions({}); },
         nothing, Kind::WHILE_DISCONNECTED},
        {"MqttClient/lastFailure", nothing,
         [](Test& t) { return t.client->lastFailure().reason == mqtt::Failure::Reason::NONE; },
         nothing},
        {"MqttClient/destroy", nothing, [](Test& t) { t.destroyClient(); }, nothing},
    };
}

Operations dataOperations() {
    return {
        {"MqttData/publish", nothing, publishValue, expectValueAtPeer},
        {"MqttData/publishWait", nothing, publishValueWait, expectValueAtPeer,
         Kind::SUCCEEDS_IN_VAIN},
        {"MqttData/clean", nothing, [](Test& t) { return t.objects.endpoint->clean(); },
         expectCleaned},
        {"MqttData/cleanWait", nothing, [](Test& t) { return t.objects.endpoint->cleanWait(); },
         expectCleaned},
        {"MqttData/setCurrentValueAsWill", nothing, makeValueTheWill, expectValueAsWill,
         Kind::WHILE_DISCONNECTED},
        {"MqttData/subscribe", nothing,
         [](Test& t) { return t.objects.endpoint->subscribe(&t.events, 2); }, expectValue},
        {"MqttData/unsubscribe", subscribeEndpoint,
         [](Test& t) { return t.objects.endpoint->unsubscribe(); }, expectNoValue},
        {"MqttData/unsubscribeWait", subscribeEndpoint, unsubscribeEndpoint, expectNoValue,
         Kind::WAITS_FOR_THE_BROKER},
        {"MqttData/release", subscribeEndpoint, [](Test& t) { t.objects.endpoint->release(); },
         expectNoValue},
        {"MqttData/destroy", subscribeEndpoint, [](Test& t) { t.objects.endpoint.reset(); },
         expectNoValue},
    };
}
