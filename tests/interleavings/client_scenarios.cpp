// Clients, endpoints and their broker.

#include "interleavings/fixtures.hpp"

#include <mqtt/link.hpp>

#include <algorithm>
#include <memory>
#include <thread>

namespace interleavings {

using conv::ComState;
using mqtt::MqttClient;
using support::StandIn;
using Error = MqttClient::Error;
using std::chrono::seconds;

namespace {

struct Subscriber final : MqttClient::Subscriber, CallbackCheck {
    void onMqttMessage(int, mqtt::Topic const&, std::string const& payload) override {
        payloads.push_back(payload);
        onCallback();
    }
    std::vector<std::string> payloads;
};

/// The client calls it under its locks, so no other thread runs during the call.
struct StateListener final : MqttClient::Listener {
    void onComStateChanged(ComState state) override {
        expect(!closed, "a state listener is called after its end");
        states.push_back(state);
        if (mayThrow) {
            maybeThrow();
        }
    }
    std::vector<ComState> states;
    bool closed = false;
    bool mayThrow = false;
};

void subscribe(MqttClient& client, char const* topic, Subscriber& subscriber) {
    static_cast<void>(client.subscribe(topic, &subscriber, 1));
}

void publishThree(SmallBroker& broker) {
    for (auto const* const payload : {"1", "2", "3"}) {
        broker.publish("a", payload);
    }
}

struct Listeners {
    Subscriber subscriber;
    Subscriber secondSubscriber;
    StateListener listener;
    StateListener secondListener;
};

/// The client ends first: it may call its listeners until then.
template <class Client>
struct WithListeners : Listeners, Client {};

SCENARIO(DisconnectMeetsTheConnection, WithListeners<IdleClient>, THREADS_ONLY) {
    client.registerListener(&listener);
    explore([&] {
        client.publish("a", "queued", 0, false);
        client.connect("", -1, 0);
        maybePause();
        expect(client.disconnect(5) == Error::SUCCESS, "the client does not disconnect");
        ifMistaken([&] { std::thread([&] { client.disconnect(5); }).detach(); });
        client.connect("", -1, 0);
    });
    auto const& states = listener.states;
    expect(client.communicationState() == ComState::CONNECTED, "the client is not connected");
    expect(states.back() == ComState::CONNECTED
               && std::count(states.begin(), states.end(), ComState::CONNECTED) <= 2,
           "the listener is not called once for each connection");
    expect(broker.count("queued") == 1, "a queued publication does not arrive once");
}

SCENARIO(PublicationsMeetTheLossOfTheConnection, ConnectedClient, THREADS_ONLY) {
    auto const library = StandIn::last();
    explore([&] {
        library->loseConnection();
        client.publish("a", "1", 0, false);
        std::thread other([&] { client.publish("b", "other", 0, false); });
        ifMistaken([&] { std::thread([&] { client.publish("a", "2", 0, false); }).detach(); });
        unlessMistaken([&] { client.publish("a", "2", 0, false); });
        client.publish("a", "3", 0, false);
        other.join();
        pass(seconds(1));
    });
    std::string order;
    for (auto const& message : broker.messages()) {
        order += message.topic == "a" ? message.payload : "";
    }
    expect(order == "123", "publications are lost or change their order");
    expect(broker.count("other") == 1, "a publication does not arrive once");
}

SCENARIO(ReleaseMeetsDispatch, WithListeners<ConnectedClient>, THREADS_ONLY) {
    subscriber.setAction(&maybeThrow);
    subscribe(client, "a", subscriber);
    subscribe(client, "a", secondSubscriber);
    explore([&] {
        publishThree(broker);
        ifMistaken([&] { client.unsubscribe("a", &subscriber); });
        unlessMistaken([&] { client.release(&subscriber); });
        subscriber.close();
    });
    expect(secondSubscriber.payloads == std::vector<std::string>{"1", "2", "3"},
           "a subscriber does not get each message once");
    client.release(&secondSubscriber);
    pass(SETTLING_TIME);
    expectNoSubscriptions();
}

SCENARIO(SubscriptionsMeetTheConnection, WithListeners<IdleClient>, THREADS_ONLY) {
    subscribe(client, "old", subscriber);
    explore([&] {
        std::thread other([&] {
            subscribe(client, "new", subscriber);
            client.unsubscribe("old", &subscriber);
        });
        client.connect("", -1, 0);
        ifMistaken([&] { subscribe(client, "old", subscriber); });
        other.join();
    });
    broker.publish("new", "x");
    broker.publish("old", "y");
    pass(SETTLING_TIME);
    expect(broker.subscriptions() == 1, "the broker has other subscriptions");
    expect(subscriber.payloads == std::vector<std::string>{"x"},
           "the subscriber does not get what it is subscribed to");
}

SCENARIO(TwoUnsubscriptionsAreAwaited, WithListeners<ConnectedClient>, THREADS_ONLY) {
    subscribe(client, "a", subscriber);
    subscribe(client, "b", subscriber);
    Error results[2]{};
    explore([&] {
        std::thread other([&] { results[0] = client.unsubscribeWait("a", &subscriber, 5); });
        results[1] = client.unsubscribeWait(makesMistake() ? "a" : "b", &subscriber, 5);
        other.join();
    });
    expect(results[0] == Error::SUCCESS && results[1] == Error::SUCCESS,
           "the wait for an acknowledgement that has come times out");
    expectNoSubscriptions();
}

SCENARIO(UnregisteringMeetsAChangeOfState, WithListeners<ConnectedClient>, THREADS_ONLY) {
    listener.mayThrow = true;
    client.registerListener(&listener);
    client.registerListener(&secondListener);
    explore([&] {
        StandIn::last()->loseConnection();
        std::thread other([&] { client.disconnect(5); });
        unlessMistaken([&] { client.unregisterListener(&listener); });
        listener.closed = true;
        other.join();
    });
    auto const& states = secondListener.states;
    expect(!states.empty() && states.back() == client.communicationState(),
           "the listener does not learn the last state");
}

SCENARIO(TheEndOfAClientMeetsItsCallbacks, WithListeners<TwoConnectedClients>, DEADLINES) {
    client->registerListener(&listener);
    subscribe(*client, "a", subscriber);
    explore([&] {
        publishThree(broker);
        StandIn::withClientId(MqttClient::clientId(CLIENT))->loseConnection();
        StandIn::withClientId(MqttClient::clientId(OTHER_CLIENT))->loseConnection();
        ifMistaken([&] { subscriber.close(); });
        client.reset();
        subscriber.close();
        listener.closed = true;
    });
    expect(otherClient.communicationState() == ComState::CONNECTED,
           "another client is no longer connected");
}

struct LinkSubscriber final : mqtt::MqttData<mqtt::Link>::Subscriber, CallbackCheck {
    void onMqttData(mqtt::Link const&, bool, int) override { onCallback(); }
};

SCENARIO(TheEndOfAnEndpointMeetsItsCallbacks, ConnectedClient, THREADS_ONLY) {
    LinkSubscriber subscriber;
    CallbackCheck function;
    auto endpoint = std::make_unique<mqtt::MqttData<mqtt::Link>>(client, "a");
    endpoint->subscribe(&subscriber, 1);
    explore([&] {
        broker.publish("a", R"({"@id": "first"})");
        if (maybe()) { // the copy subscribes nevertheless
            mqtt::MqttDataBase::Lock lock(endpoint->mutex());
            endpoint->unsubscribe(lock);
        }
        auto copy = std::make_unique<mqtt::MqttData<mqtt::Link>>(*endpoint);
        auto subscription = endpoint->subscribe([&](auto const&, bool) { function.onCallback(); });
        broker.publish("a", R"({"@id": "second"})");
        maybePause();
        ifMistaken([&] { subscriber.close(); });
        subscription = {};
        function.close();
        copy.reset();
        endpoint.reset();
        subscriber.close();
    });
    expectNoSubscriptions();
}

SCENARIO(AClientWithoutResources, WithListeners<IdleClient>, RESOURCES) {
    int publications = 0;
    int subscriptions = 0;
    auto const publish = [&] {
        publications += attempt([&] { client.publish("a", "x", 0, false); });
    };
    auto const publishAndSubscribe = [&](char const* topic) {
        MemoryMayFail const here;
        publish();
        subscriptions += attempt([&] { subscribe(client, topic, subscriber); });
    };
    explore([&] { publishAndSubscribe("offline"); });
    client.connect("", -1, 5);
    explore([&] { publishAndSubscribe("online"); });
    ifMistaken([&] { publish(); });
    broker.publish("offline", "0");
    broker.publish("online", "1");
    pass(SETTLING_TIME);
    expect(broker.count("x") == publications && publications < 3,
           "an accepted publication does not arrive once");
    expect(subscriber.count() == subscriptions,
           "the subscriber does not get what it is subscribed to");
    client.release(&subscriber);
    client.publish("a", "last", 0, false);
    expect(broker.count("last") == 1, "the client can no longer publish");
}

SCENARIO(TwoThreadsConnectAndDisconnect, WithListeners<IdleClient>, DEADLINES) {
    client.registerListener(&listener);
    auto const connectAndDisconnect = [&] {
        client.connect("", -1, 1);
        client.disconnect(1);
    };
    explore([&] {
        std::thread other(connectAndDisconnect);
        connectAndDisconnect();
        unlessMistaken([&] { client.pause(); });
        other.join();
        client.resume();
    });
    client.disconnect(5);
    pass(SETTLING_TIME);
    expect(client.communicationState() == ComState::DISCONNECTED, "the client does not disconnect");
    auto const& states = listener.states;
    expect(std::adjacent_find(states.begin(), states.end()) == states.end(),
           "the listener gets the same state twice");
    expect(client.connect("", -1, 5) == Error::SUCCESS && !makesMistake(),
           "the client can no longer connect");
}

} // namespace

} // namespace interleavings
