#include "operations.hpp"

using Error = mqtt::MqttClient::Error;

namespace {

std::string const LINK = R"({"@id": "new"})";

void subscribeEndpoint(Stage& stage) {
    auto& endpoint = stage.things.makeEndpoint();
    if (!stage.own) {
        EXPECT_EQ(endpoint.subscribe(&stage.ear, 1), Error::SUCCESS);
    }
    EXPECT_TRUE(stage.own || stage.reaches(stage.topic("value"), LINK, "value new"));
}

void expectReached(Stage& stage) {
    EXPECT_TRUE(stage.reaches(stage.topic("value"), LINK, "value new"));
}

void expectNotReached(Stage& stage) {
    EXPECT_FALSE(stage.reaches(stage.topic("value"), LINK, "value new"));
}

void setValue(Stage& stage) {
    auto& endpoint = stage.things.makeEndpoint();
    mqtt::MqttDataBase::Lock const lock(endpoint.mutex());
    endpoint.value.id = "mine";
}

void makeEndpoint(Stage& stage) {
    stage.things.makeEndpoint();
}

void expectAtPeer(Stage& stage) {
    EXPECT_TRUE(stage.peerSees(stage.topic("value"), "{\n  \"@id\": \"mine\"\n}"));
}

void expectCleaned(Stage& stage) {
    EXPECT_TRUE(stage.peerSees(stage.topic("value"), ""));
}

Operations publishing() {
    return {{"MqttData/publish", makeEndpoint,
             [](Stage& s) {
                 setValue(s);
                 s.things.endpoint->publish();
             },
             expectAtPeer},
            {"MqttData/publishWait", makeEndpoint,
             [](Stage& s) {
                 setValue(s);
                 s.things.endpoint->publishWait();
             },
             expectAtPeer},
            {"MqttData/clean", makeEndpoint,
             [](Stage& s) { EXPECT_EQ(s.things.endpoint->clean(), Error::SUCCESS); },
             expectCleaned},
            {"MqttData/cleanWait", makeEndpoint,
             [](Stage& s) { EXPECT_EQ(s.things.endpoint->cleanWait(), Error::SUCCESS); },
             expectCleaned},
            {"MqttData/setCurrentValueAsWill", makeEndpoint,
             [](Stage& s) {
                 setValue(s);
                 EXPECT_EQ(s.things.endpoint->setCurrentValueAsWill(),
                           s.refused ? Error::CONNECTION_PENDING : Error::SUCCESS);
             },
             [](Stage& s) {
                 if (s.refused) {
                     return s.flush();
                 }
                 s.vanish();
                 expectAtPeer(s);
             },
             true}};
}

Operations subscribing() {
    return {{"MqttData/subscribe", makeEndpoint,
             [](Stage& s) { EXPECT_EQ(s.things.endpoint->subscribe(&s.ear, 2), Error::SUCCESS); },
             expectReached},
            {"MqttData/unsubscribe", subscribeEndpoint,
             [](Stage& s) { EXPECT_EQ(s.things.endpoint->unsubscribe(), Error::SUCCESS); },
             expectNotReached},
            {"MqttData/unsubscribeWait", subscribeEndpoint,
             [](Stage& s) {
                 mqtt::MqttDataBase::Lock lock(s.things.endpoint->mutex());
                 EXPECT_EQ(s.things.endpoint->unsubscribeWait(lock),
                           s.onWorker ? Error::TIMEOUT : Error::SUCCESS);
             },
             expectNotReached},
            {"MqttData/release", subscribeEndpoint, [](Stage& s) { s.things.endpoint->release(); },
             expectNotReached},
            {"MqttData/destroy", subscribeEndpoint, [](Stage& s) { s.things.endpoint.reset(); },
             expectNotReached}};
}

} // namespace

Operations dataOperations() {
    auto all = publishing();
    auto const others = subscribing();
    all.insert(all.end(), others.begin(), others.end());
    return all;
}
