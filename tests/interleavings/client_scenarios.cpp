// Clients with their broker.

#include "interleavings/stage.hpp"

#include <mqtt/client.hpp>

#include <memory>
#include <thread>

using namespace interleavings;
using conv::ComState;
using mqtt::MqttClient;
using support::StandIn;
using Error = MqttClient::Error;
using std::chrono::seconds;

namespace {

struct Subscriber final : MqttClient::Subscriber {
    explicit Subscriber(std::function<void()> hook = {}) : ear(std::move(hook)) {}
    void onMqttMessage(int, mqtt::Topic const&, std::string const& payload) override {
        payloads.push_back(payload);
        ear.hear();
    }
    std::vector<std::string> payloads;
    Ear ear;
};

/// No thread is stopped in there: the client holds its locks.
struct StateListener final : MqttClient::Listener {
    void onComStateChanged(ComState state) override {
        Scene::expect(!closed, "a state listener is called after its end");
        states.push_back(state);
    }
    std::ptrdiff_t connections() const {
        return std::count(states.begin(), states.end(), ComState::CONNECTED);
    }
    std::vector<ComState> states;
    bool closed = false;
};

void publishSome(SmallBroker& broker) {
    for (auto const* const payload : {"1", "2", "3"}) {
        broker.publish("a", payload);
    }
}

} // namespace

SCENARIO(DisconnectMeetsConnack, PAUSES) {
    IdleClient one;
    StateListener listener;
    one.client.registerListener(&listener);
    {
        Scene::Exploration const here;
        one.client.connect("", -1, 0);
        scene.pause();
        Scene::expect(one.client.disconnect(5) == Error::SUCCESS, "the client does not disconnect");
        std::thread other([&] {
            if (scene.mistaken()) {
                one.client.disconnect(5);
            }
        });
        one.client.connect("", -1, 0);
        other.join();
    }
    Scene::pass(LONG);
    Scene::expect(one.client.communicationState() == ComState::CONNECTED, "it is not connected");
    Scene::expect(listener.states.back() == ComState::CONNECTED && listener.connections() <= 2,
                  "the listener is not told once of each connection");
}

SCENARIO(DisconnectMeetsTheQueue, PAUSES) {
    IdleClient one;
    {
        Scene::Exploration const here;
        one.client.publish("a", "queued", 0, false);
        one.client.connect("", -1, 0);
        scene.pause();
        one.client.disconnect(5);
        if (scene.mistaken()) {
            one.client.publish("a", "queued", 0, false);
        }
    }
    Scene::pass(LONG);
    one.client.connect("", -1, 5);
    Scene::pass(LONG);
    Scene::expect(one.broker.count("queued") == 1, "a queued publication does not arrive once");
}

SCENARIO(PublicationsMeetTheLossOfTheConnection, THREADS_ONLY) {
    ConnectedClient one;
    auto const library = StandIn::last();
    {
        Scene::Exploration const here;
        library->loseConnection();
        one.client.publish("a", "1", 0, false);
        std::thread other([&] { one.client.publish("b", "other", 0, false); });
        if (scene.mistaken()) {
            std::thread([&] { one.client.publish("a", "2", 0, false); }).detach();
        } else {
            one.client.publish("a", "2", 0, false);
        }
        one.client.publish("a", "3", 0, false);
        other.join();
        Scene::pass(seconds(1));
    }
    Scene::pass(LONG);
    std::string order;
    for (auto const& message : one.broker.messages()) {
        order += message.topic == "a" ? message.payload : "";
    }
    Scene::expect(order == "123", "publications get lost, or into another order");
    Scene::expect(one.broker.count("other") == 1, "a publication does not arrive once");
}

SCENARIO(ReleaseMeetsDispatch, THREADS_ONLY) {
    ConnectedClient one;
    Subscriber first;
    Subscriber second;
    static_cast<void>(one.client.subscribe("a", &first, 1));
    static_cast<void>(one.client.subscribe("a", &second, 2));
    {
        Scene::Exploration const here;
        publishSome(one.broker);
        if (scene.mistaken()) {
            one.client.unsubscribe("a", &first);
        } else {
            one.client.release(&first);
        }
        first.ear.close();
    }
    Scene::pass(LONG);
    Scene::expect(second.payloads == std::vector<std::string>{"1", "2", "3"},
                  "a subscriber does not get each message once");
    one.client.release(&second);
    Scene::pass(LONG);
    one.expectNothingLeft();
}

SCENARIO(SubscriptionsMeetTheConnection, THREADS_ONLY) {
    IdleClient one;
    Subscriber subscriber;
    static_cast<void>(one.client.subscribe("old", &subscriber, 1));
    {
        Scene::Exploration const here;
        std::thread other([&] {
            static_cast<void>(one.client.subscribe("new", &subscriber, 1));
            one.client.unsubscribe("old", &subscriber);
        });
        one.client.connect("", -1, 0);
        if (scene.mistaken()) {
            static_cast<void>(one.client.subscribe("old", &subscriber, 1));
        }
        other.join();
    }
    Scene::pass(LONG);
    one.broker.publish("new", "x");
    one.broker.publish("old", "y");
    Scene::pass(LONG);
    Scene::expect(one.broker.subscriptions() == 1, "the broker has other subscriptions");
    Scene::expect(subscriber.payloads == std::vector<std::string>{"x"}, "not what is subscribed");
}

SCENARIO(TwoUnsubscriptionsAreAwaited, THREADS_ONLY) {
    ConnectedClient one;
    Subscriber subscriber;
    static_cast<void>(one.client.subscribe("a", &subscriber, 1));
    static_cast<void>(one.client.subscribe("b", &subscriber, 1));
    Error results[2]{};
    {
        Scene::Exploration const here;
        std::thread other([&] { results[0] = one.client.unsubscribeWait("a", &subscriber, 5); });
        results[1] = one.client.unsubscribeWait(scene.mistaken() ? "a" : "b", &subscriber, 5);
        other.join();
    }
    Scene::expect(results[0] == Error::SUCCESS && results[1] == Error::SUCCESS,
                  "the wait for an acknowledgement that has come times out");
    one.expectNothingLeft();
}

SCENARIO(UnregisteringMeetsAChangeOfState, THREADS_ONLY) {
    ConnectedClient one;
    StateListener first;
    StateListener second;
    one.client.registerListener(&first);
    one.client.registerListener(&second);
    {
        Scene::Exploration const here;
        StandIn::last()->loseConnection();
        std::thread other([&] { one.client.disconnect(5); });
        if (!scene.mistaken()) {
            one.client.unregisterListener(&first);
        }
        first.closed = true;
        other.join();
    }
    Scene::pass(LONG);
    auto const last = one.client.communicationState();
    Scene::expect(!second.states.empty() && second.states.back() == last,
                  "the last change is not told");
}

SCENARIO(TheEndOfAClientMeetsItsCallbacks, DEADLINES) {
    SmallBroker broker;
    auto client = std::make_unique<MqttClient>(ME, false, "", "host", 1883, true);
    MqttClient neighbour(OTHER, false, "", "host", 1883, true);
    Subscriber subscriber;
    StateListener listener;
    client->registerListener(&listener);
    static_cast<void>(client->subscribe("a", &subscriber, 1));
    {
        Scene::Exploration const here;
        publishSome(broker);
        StandIn::withClientId(MqttClient::clientId(ME))->loseConnection();
        StandIn::withClientId(MqttClient::clientId(OTHER))->loseConnection();
        if (scene.mistaken()) {
            subscriber.ear.close();
        }
        client.reset();
        subscriber.ear.close();
        listener.closed = true;
    }
    Scene::pass(LONG);
    Scene::expect(neighbour.communicationState() == ComState::CONNECTED,
                  "another client is not connected any more");
}

SCENARIO(AClientWithoutMemory, NO_MEMORY) {
    IdleClient one;
    Subscriber subscriber;
    std::ptrdiff_t accepted = 0;
    bool subscribed[2]{};
    auto const publish = [&] {
        accepted += attempt([&] { one.client.publish("a", "x", 0, false); });
    };
    auto const subscribe = [&](char const* topic) {
        return attempt([&] { static_cast<void>(one.client.subscribe(topic, &subscriber, 1)); });
    };
    {
        Scene::Exploration const here;
        Scene::Shortage const shortage;
        publish();
        subscribed[0] = subscribe("offline");
    }
    one.client.connect("", -1, 5);
    {
        Scene::Exploration const here;
        Scene::Shortage const shortage;
        publish();
        subscribed[1] = subscribe("online");
    }
    if (scene.mistaken()) {
        publish();
    }
    Scene::pass(LONG);
    one.broker.publish("offline", "0");
    one.broker.publish("online", "1");
    Scene::pass(LONG);
    Scene::expect(one.broker.count("x") == accepted && accepted < 3,
                  "a publication that was accepted does not arrive once");
    Scene::expect(subscriber.ear.count() == subscribed[0] + subscribed[1],
                  "not what is subscribed");
    one.client.release(&subscriber);
    one.client.publish("a", "last", 0, false);
    Scene::expect(one.broker.count("last") == 1, "the client does not publish any more");
}

SCENARIO(CallbacksOfAClientThrow, THREADS_ONLY) {
    struct Listener final : MqttClient::Listener {
        void onComStateChanged(ComState) override { throwSometimes(); }
    } listener;
    ConnectedClient one;
    StateListener second;
    Subscriber subscribers[2]{Subscriber(&throwSometimes), Subscriber()};
    one.client.registerListener(&listener);
    one.client.registerListener(&second);
    for (auto& subscriber : subscribers) {
        static_cast<void>(one.client.subscribe("a", &subscriber, 1));
    }
    {
        Scene::Exploration const here;
        StandIn::last()->loseConnection();
        publishSome(one.broker);
        if (scene.mistaken()) {
            one.client.unsubscribe("a", &subscribers[1]);
        }
        Scene::pass(seconds(2));
        publishSome(one.broker);
        one.client.release(&subscribers[0]);
    }
    Scene::pass(LONG);
    Scene::expect(subscribers[1].payloads.size() == 6, "a subscriber does not get its messages");
    Scene::expect(second.states.back() == ComState::CONNECTED, "a listener is not told");
}

SCENARIO(TwoThreadsConnectAndDisconnect, DEADLINES) {
    IdleClient one;
    StateListener listener;
    one.client.registerListener(&listener);
    {
        Scene::Exploration const here;
        std::thread other([&] {
            one.client.connect("", -1, 1);
            one.client.disconnect(1);
        });
        one.client.connect("", -1, 1);
        one.client.disconnect(1);
        if (!scene.mistaken()) {
            one.client.pause();
        }
        other.join();
        one.client.resume();
    }
    Scene::pass(LONG);
    one.client.disconnect(5);
    Scene::pass(LONG);
    Scene::expect(one.client.communicationState() == ComState::DISCONNECTED,
                  "the client does not disconnect");
    for (std::size_t i = 1; i < listener.states.size(); ++i) {
        Scene::expect(listener.states[i] != listener.states[i - 1], "a change is told twice");
    }
    Scene::expect(one.client.connect("", -1, 5) == Error::SUCCESS && !scene.mistaken(),
                  "the client does not connect any more");
}
