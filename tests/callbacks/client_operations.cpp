#include "operations.hpp"

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
    if (t.verdict == Verdict::REFUSED) {
        return expectConnected(t);
    }
    EXPECT_TRUE(support::eventually(
        [&] { return t.client->communicationState() == conv::ComState::DISCONNECTED; }));
}

Error setWill(Test& t) {
    return t.client->setWill(t.topic("x"), "hello", 0, false);
}

void expectWill(Test& t) {
    if (t.verdict == Verdict::REFUSED) {
        return expectConnected(t);
    }
    t.destroyConnectedClient();
    expectAtPeer(t);
}

void expectNoWill(Test& t) {
    if (t.verdict == Verdict::REFUSED) {
        return expectConnected(t);
    }
    t.destroyConnectedClient();
    t.peer.publish(t.topic("last"), "hello");
    EXPECT_EQ(t.countAtPeer(t.topic("x")), 0U);
}

/// A registered listener is told of the end of the connection.
void expectToldOfDisconnection(Test& t, std::size_t times) {
    t.events.clear();
    EXPECT_EQ(t.client->disconnect(TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(t.events.count("state 1"), times);
}

/// A pause begins after the network step that makes the call, and the one after that.
void expectPaused(Test& t) {
    t.peer.publish(t.topic("wake"), "hello");
    EXPECT_EQ(t.client->publish(t.topic("x"), "hello", 2, false), Error::SUCCESS);
    for (int i = 0; i < 20; ++i) {
        t.peer.publish(t.topic("other"), "hello");
    }
    EXPECT_EQ(t.countAtPeer(t.topic("x")), 0U);
    t.client->resume();
    expectAtPeer(t);
}

void makeEndpoint(Test& t) {
    t.objects.makeEndpoint();
}

void subscribeEndpoint(Test& t) {
    auto& endpoint = t.objects.makeEndpoint();
    if (!t.sameObject) {
        EXPECT_EQ(endpoint.subscribe(&t.events, 1), Error::SUCCESS);
        EXPECT_TRUE(t.causes("value new", t.topic("value"), LINK));
    }
}

void expectValue(Test& t) {
    EXPECT_TRUE(t.causes("value new", t.topic("value"), LINK));
}

void expectNoValue(Test& t) {
    EXPECT_FALSE(t.causes("value new", t.topic("value"), LINK));
}

void setValue(Test& t) {
    mqtt::MqttDataBase::Lock const lock(t.objects.endpoint->mutex());
    t.objects.endpoint->value.id = "mine";
}

void expectValueAtPeer(Test& t) {
    EXPECT_TRUE(t.peerReceives(t.topic("value"), "{\n  \"@id\": \"mine\"\n}"));
}

void expectCleaned(Test& t) {
    EXPECT_TRUE(t.peerReceives(t.topic("value"), ""));
}

void expectValueAsWill(Test& t) {
    if (t.verdict == Verdict::REFUSED) {
        return t.flush();
    }
    t.destroyConnectedClient();
    expectValueAtPeer(t);
}

} // namespace

Operations clientOperations() {
    auto const call = [](std::string const& name, Operation::Step const& prepare,
                         std::function<Error(Test&)> const& operation, Operation::Step const& check,
                         bool whileDisconnected = false) {
        return Operation{"MqttClient/" + name, prepare,
                         [=](Test& t) { EXPECT_EQ(operation(t), t.expected()); }, check,
                         whileDisconnected};
    };
    return {
        call(
            "publish", nothing,
            [](Test& t) { return t.client->publish(t.topic("x"), "hello", 2, false); },
            expectAtPeer),
        call(
            "publishWait", nothing,
            [](Test& t) { return t.client->publishWait(t.topic("x"), "hello", 2, false, HOUR_S); },
            expectAtPeer),
        call(
            "clear", [](Test& t) { t.peer.publish(t.topic("x"), "hello", 2, true); },
            [](Test& t) { return t.client->clear(t.topic("x")); },
            [](Test& t) { EXPECT_TRUE(t.peerReceives(t.topic("x"), "")); }),
        call(
            "subscribe", nothing,
            [](Test& t) { return t.client->subscribe(t.topic("x"), &t.events, 1); },
            expectDelivery),
        call(
            "unsubscribe", subscribeRecorder,
            [](Test& t) { return t.client->unsubscribe(t.topic("x"), &t.events); },
            expectNoDelivery),
        {"MqttClient/unsubscribeWait", subscribeRecorder,
         [](Test& t) {
             EXPECT_EQ(t.client->unsubscribeWait(t.topic("x"), &t.events, TIMEOUT_S),
                       t.onWorker ? Error::TIMEOUT : Error::SUCCESS);
         },
         expectNoDelivery},
        {"MqttClient/release", subscribeRecorder, [](Test& t) { t.client->release(&t.events); },
         expectNoDelivery},
        {"MqttClient/registerListener", nothing,
         [](Test& t) { t.client->registerListener(&t.events); },
         [](Test& t) { expectToldOfDisconnection(t, 1); }},
        {"MqttClient/unregisterListener", [](Test& t) { t.client->registerListener(&t.events); },
         [](Test& t) { t.client->unregisterListener(&t.events); },
         [](Test& t) { expectToldOfDisconnection(t, 0); }},
        {"MqttClient/communicationState", nothing,
         [](Test& t) { EXPECT_EQ(t.client->communicationState(), conv::ComState::CONNECTED); },
         nothing},
        call(
            "connect", nothing, [](Test& t) { return t.client->connect("", -1, TIMEOUT_S); },
            expectConnected, true),
        call(
            "disconnect", nothing, [](Test& t) { return t.client->disconnect(HOUR_S); },
            expectDisconnected),
        {"MqttClient/disconnect(0)", nothing,
         [](Test& t) { // SUCCESS or TIMEOUT, whichever is first
             EXPECT_EQ(t.client->disconnect(0) == Error::CONNECTION_PENDING,
                       t.verdict == Verdict::REFUSED);
         },
         expectDisconnected},
        {"MqttClient/giveUp", nothing, [](Test& t) { t.client->giveUp(); }, expectDisconnected},
        {"MqttClient/pause", nothing, [](Test& t) { t.client->pause(); }, expectPaused},
        {"MqttClient/resume", nothing,
         [](Test& t) {
             t.client->pause();
             t.client->resume();
         },
         [](Test& t) { t.flush(); }},
        call("setWill", nothing, setWill, expectWill, true),
        call(
            "clearWill",
            [](Test& t) {
                if (t.verdict != Verdict::REFUSED) {
                    EXPECT_EQ(setWill(t), Error::SUCCESS);
                }
            },
            [](Test& t) { return t.client->clearWill(); }, expectNoWill, true),
        {"MqttClient/destroy",
         [](Test& t) {
             EXPECT_EQ(t.client->disconnect(TIMEOUT_S), Error::SUCCESS);
             EXPECT_EQ(setWill(t), Error::SUCCESS);
             EXPECT_EQ(t.client->connect("", -1, TIMEOUT_S), Error::SUCCESS);
         },
         [](Test& t) { t.client.reset(); }, expectAtPeer}};
}

Operations dataOperations() {
    return {
        {"MqttData/publish", makeEndpoint,
         [](Test& t) {
             setValue(t);
             t.objects.endpoint->publish();
         },
         expectValueAtPeer},
        {"MqttData/publishWait", makeEndpoint,
         [](Test& t) {
             setValue(t);
             t.objects.endpoint->publishWait();
         },
         expectValueAtPeer},
        {"MqttData/clean", makeEndpoint,
         [](Test& t) { EXPECT_EQ(t.objects.endpoint->clean(), Error::SUCCESS); }, expectCleaned},
        {"MqttData/cleanWait", makeEndpoint,
         [](Test& t) { EXPECT_EQ(t.objects.endpoint->cleanWait(), t.expected()); }, expectCleaned},
        {"MqttData/setCurrentValueAsWill", makeEndpoint,
         [](Test& t) {
             setValue(t);
             EXPECT_EQ(t.objects.endpoint->setCurrentValueAsWill(), t.expected());
         },
         expectValueAsWill, true},
        {"MqttData/subscribe", makeEndpoint,
         [](Test& t) { EXPECT_EQ(t.objects.endpoint->subscribe(&t.events, 2), Error::SUCCESS); },
         expectValue},
        {"MqttData/unsubscribe", subscribeEndpoint,
         [](Test& t) { EXPECT_EQ(t.objects.endpoint->unsubscribe(), Error::SUCCESS); },
         expectNoValue},
        {"MqttData/unsubscribeWait", subscribeEndpoint,
         [](Test& t) {
             mqtt::MqttDataBase::Lock lock(t.objects.endpoint->mutex());
             EXPECT_EQ(t.objects.endpoint->unsubscribeWait(lock),
                       t.onWorker ? Error::TIMEOUT : Error::SUCCESS);
         },
         expectNoValue},
        {"MqttData/release", subscribeEndpoint, [](Test& t) { t.objects.endpoint->release(); },
         expectNoValue},
        {"MqttData/destroy", subscribeEndpoint, [](Test& t) { t.objects.endpoint.reset(); },
         expectNoValue}};
}
