// A client alone with its broker.

#include "interleavings/scenario.hpp"
#include "interleavings/small_broker.hpp"

#include <mqtt/client.hpp>

#include <thread>

using namespace interleavings;
using mqtt::MqttClient;
using Error = MqttClient::Error;
using std::chrono::seconds;

namespace {

constexpr zym::common::Uuid ME{1};

struct Recorder : MqttClient::Subscriber {
    void onMqttMessage(int, mqtt::Topic const&, std::string const& payload) override {
        payloads.push_back(payload);
    }
    std::vector<std::string> payloads;
};

/// A client without a connection.
struct OneClient {
    SmallBroker broker;
    MqttClient client{ME, false, "", "host", 1883, false};
};

} // namespace

SCENARIO(DisconnectMeetsConnack, THREADS_ONLY) {
    OneClient one;
    {
        Scene::Exploration const here;
        one.client.connect("", -1, 0);
        one.client.disconnect(5);
        one.client.connect("", -1, 0);
    }
    Scene::pass(seconds(20));
    Scene::expect(one.client.communicationState() == conv::ComState::CONNECTED,
                  "the client is not connected");
}

SCENARIO(QueuedPublicationMeetsDisconnect, THREADS_ONLY) {
    OneClient one;
    {
        Scene::Exploration const here;
        one.client.publish("a", "queued", 0, false);
        one.client.connect("", -1, 0);
        one.client.disconnect(5);
    }
    Scene::pass(seconds(20));
    one.client.connect("", -1, 5);
    Scene::pass(seconds(20));
    Scene::expect(one.broker.count("queued") == 1, "a queued publication has not arrived once");
}
