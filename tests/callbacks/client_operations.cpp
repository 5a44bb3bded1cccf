#include "operations.hpp"

using Error = mqtt::MqttClient::Error;

namespace {

Error expected(Stage const& stage) {
    return stage.refused ? Error::CONNECTION_PENDING : Error::SUCCESS;
}

/// Who is to read the acknowledgement is busy calling us.
Error expectedOfAWait(Stage const& stage) {
    return stage.onWorker ? Error::TIMEOUT : Error::SUCCESS;
}

void subscribeEar(Stage& stage) {
    EXPECT_EQ(stage.client->subscribe(stage.topic("x"), &stage.ear, 1), Error::SUCCESS);
    EXPECT_TRUE(stage.reaches(stage.topic("x"), "before", "message " + stage.topic("x")));
}

void expectReached(Stage& stage) {
    EXPECT_TRUE(stage.reaches(stage.topic("x"), "after", "message " + stage.topic("x")));
}

void expectNotReached(Stage& stage) {
    EXPECT_FALSE(stage.reaches(stage.topic("x"), "after", "message " + stage.topic("x")));
}

void expectAtPeer(Stage& stage) {
    EXPECT_TRUE(stage.peerSees(stage.topic("x"), "hello"));
}

void expectConnection(Stage& stage) {
    EXPECT_TRUE(support::becomesConnected(*stage.client));
    stage.flush();
}

void expectDisconnection(Stage& stage) {
    if (stage.refused) {
        return expectConnection(stage);
    }
    EXPECT_TRUE(support::eventually(
        [&] { return stage.client->communicationState() == conv::ComState::DISCONNECTED; }));
}

Error setWill(Stage& stage) {
    return stage.client->setWill(stage.topic("x"), "hello", 0, false);
}

Operations publishing() {
    return {{"MqttClient/publish", nothing,
             [](Stage& s) {
                 EXPECT_EQ(s.client->publish(s.topic("x"), "hello", 2, false), Error::SUCCESS);
             },
             expectAtPeer},
            {"MqttClient/publishWait", nothing,
             [](Stage& s) {
                 EXPECT_EQ(s.client->publishWait(s.topic("x"), "hello", 2, false, PATIENCE),
                           Error::SUCCESS);
             },
             expectAtPeer},
            {"MqttClient/clear", [](Stage& s) { s.peer.publish(s.topic("x"), "hello", 2, true); },
             [](Stage& s) { EXPECT_EQ(s.client->clear(s.topic("x")), Error::SUCCESS); },
             [](Stage& s) { EXPECT_TRUE(s.peerSees(s.topic("x"), "")); }}};
}

Operations subscribing() {
    return {
        {"MqttClient/subscribe", nothing,
         [](Stage& s) { EXPECT_EQ(s.client->subscribe(s.topic("x"), &s.ear, 1), Error::SUCCESS); },
         expectReached},
        {"MqttClient/unsubscribe", subscribeEar,
         [](Stage& s) { EXPECT_EQ(s.client->unsubscribe(s.topic("x"), &s.ear), Error::SUCCESS); },
         expectNotReached},
        {"MqttClient/unsubscribeWait", subscribeEar,
         [](Stage& s) {
             EXPECT_EQ(s.client->unsubscribeWait(s.topic("x"), &s.ear, PATIENCE),
                       expectedOfAWait(s));
         },
         expectNotReached},
        {"MqttClient/release", subscribeEar, [](Stage& s) { s.client->release(&s.ear); },
         expectNotReached}};
}

/// A listener is told of the end of the connection, if it listens then.
void expectToldOfTheEnd(Stage& stage, bool told) {
    stage.ear.clear();
    EXPECT_EQ(stage.client->disconnect(PATIENCE), Error::SUCCESS);
    EXPECT_EQ(stage.ear.count("state 1"), told ? 1 : 0);
}

Operations listening() {
    return {{"MqttClient/registerListener", nothing,
             [](Stage& s) { s.client->registerListener(&s.ear); },
             [](Stage& s) { expectToldOfTheEnd(s, true); }},
            {"MqttClient/unregisterListener", [](Stage& s) { s.client->registerListener(&s.ear); },
             [](Stage& s) { s.client->unregisterListener(&s.ear); },
             [](Stage& s) { expectToldOfTheEnd(s, false); }},
            {"MqttClient/communicationState", nothing,
             [](Stage& s) { EXPECT_EQ(s.client->communicationState(), conv::ComState::CONNECTED); },
             nothing}};
}

Operations connecting() {
    return {
        {"MqttClient/connect", nothing,
         [](Stage& s) { EXPECT_EQ(s.client->connect("", -1, PATIENCE), expected(s)); },
         expectConnection, true},
        {"MqttClient/disconnect", nothing,
         [](Stage& s) { EXPECT_EQ(s.client->disconnect(PATIENCE), expected(s)); },
         expectDisconnection},
        // Success when it was that quick.
        {"MqttClient/disconnect(0)", nothing,
         [](Stage& s) {
             auto const result = s.client->disconnect(0);
             EXPECT_EQ(result == Error::CONNECTION_PENDING, s.refused) << result;
         },
         expectDisconnection},
        {"MqttClient/giveUp", nothing, [](Stage& s) { s.client->giveUp(); }, expectDisconnection}};
}

Operations pausing() {
    return {{"MqttClient/pause", nothing, [](Stage& s) { s.client->pause(); },
             [](Stage& s) {
                 // It takes effect at the end of the step that calls us, and of another one.
                 s.peer.publish(s.topic("wake"), "hello");
                 EXPECT_EQ(s.client->publish(s.topic("x"), "hello", 2, false), Error::SUCCESS);
                 for (int i = 0; i < 20; ++i) {
                     s.peer.publish(s.topic("other"), "hello");
                 }
                 EXPECT_EQ(s.countAtPeer(s.topic("x")), 0U);
                 s.client->resume();
                 expectAtPeer(s);
             }},
            {"MqttClient/resume", [](Stage& s) { s.client->resume(); },
             [](Stage& s) {
                 s.client->pause();
                 s.client->resume();
             },
             [](Stage& s) { s.flush(); }}};
}

Operations wills() {
    return {{"MqttClient/setWill", nothing, [](Stage& s) { EXPECT_EQ(setWill(s), expected(s)); },
             [](Stage& s) {
                 if (s.refused) {
                     return expectConnection(s);
                 }
                 s.vanish();
                 expectAtPeer(s);
             },
             true},
            {"MqttClient/clearWill",
             [](Stage& s) {
                 if (!s.refused) {
                     EXPECT_EQ(setWill(s), Error::SUCCESS);
                 }
             },
             [](Stage& s) { EXPECT_EQ(s.client->clearWill(), expected(s)); },
             [](Stage& s) {
                 if (s.refused) {
                     return expectConnection(s);
                 }
                 s.vanish();
                 s.peer.publish(s.topic("last"), "hello");
                 EXPECT_EQ(s.countAtPeer(s.topic("x")), 0U);
             },
             true},
            {"MqttClient/destroy",
             [](Stage& s) {
                 EXPECT_EQ(s.client->disconnect(PATIENCE), Error::SUCCESS);
                 EXPECT_EQ(setWill(s), Error::SUCCESS);
                 EXPECT_EQ(s.client->connect("", -1, PATIENCE), Error::SUCCESS);
             },
             [](Stage& s) { s.client.reset(); }, expectAtPeer}};
}

} // namespace

Operations clientOperations() {
    Operations all;
    for (auto const& some :
         {publishing(), subscribing(), listening(), connecting(), pausing(), wills()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}
