#include "callback_test.hpp"

#include <zym/common/lwjson.hpp>

using zym::common::Uuid;
using Error = mqtt::MqttClient::Error;

namespace {

std::string nextRoot() {
    static std::atomic<int> count{0};
    return "test" + std::to_string(++count);
}

} // namespace

SharedDevice& device() {
    static SharedDevice instance;
    return instance;
}

SharedDevice::SharedDevice() {
    echo.subscribe(&events, Uuid::NIL, std::make_shared<NumberData>());
    bind.subscribe(&events, id, std::make_shared<mqtt::BindRequestData>());
    unbind.subscribe(&events, id, nullptr);
    support::RawPeer peer(broker);
    peer.publish("far/links",
                 R"({"members@count": 2, "members": [{"@id": "far/one"}, {"@id": "far/two"}]})", 2,
                 true);
    peer.publish("far/one/identification", R"({"name": "one"})", 2, true);
    peer.publish("far/two/identification", R"({"name": "two"})", 2, true);
    // With the acknowledgement, the subscriptions have reached the broker too.
    client->publishWait("far/ready", "", 1, false, TIMEOUT_S);
}

Objects::Objects(std::unique_ptr<mqtt::MqttClient> const& on, std::string below,
                 EventRecorder& listener)
    : client(on),
      root(std::move(below)),
      events(listener),
      endpoint(std::make_unique<mqtt::MqttData<mqtt::Link>>(*on, root + "/value")),
      requester(std::make_unique<mqtt::RequestReplyClient>(*on, "far", "", "echo")),
      server(std::make_unique<mqtt::RequestReplyServer>(*on, root, "", "service")),
      timeProxy(std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(*on, "far", id, &events)),
      timeBase(std::make_unique<CountingTimeBase>(*on, root, id)),
      binder(std::make_unique<mqtt::BinderMqttProxy>(*on, "far", "", id, root + "/bound", &events)),
      discoverer(std::make_unique<mqtt::ServiceDiscovererMqtt>(*on, "far/links")),
      cleaner(std::make_unique<mqtt::TopicCleaner>(&events, id, device().broker.host(),
                                                   device().broker.port())),
      timer(std::make_unique<zym::common::Timer>([this] { events.record("timer"); },
                                                 std::chrono::hours(1), true)) {}

void Objects::destroyUsersOfClient() {
    endpoint.reset();
    requester.reset();
    server.reset();
    timeProxy.reset();
    timeBase.reset();
    binder.reset();
    discoverer.reset();
}

void Objects::restartTimer(std::chrono::milliseconds period, bool once) const {
    std::unique_lock lock(timer->mutex());
    timer->setPeriod(period, lock);
    timer->once = once;
    timer->restart(lock);
}

mqtt::RequestReply::ErrorCode Objects::request() const {
    return requester->request(&events, id, Uuid::NIL, std::make_shared<NumberData>(7),
                              std::make_shared<NumberData>(), nullptr, HOUR_S);
}

Error Objects::serve() {
    return server->subscribe(&events, Uuid::NIL, std::make_shared<NumberData>());
}

CallbackTest::CallbackTest() : root(nextRoot()) {
    peer.subscribe(root + "/#");
    EXPECT_EQ(client->subscribe(topic("flush"), &flushEvents, 0), Error::SUCCESS);
}

void CallbackTest::flush() {
    EXPECT_EQ(client->publish(topic("flush"), "now", 0, false), Error::SUCCESS);
    EXPECT_TRUE(flushEvents.waitFor("message " + topic("flush"), ++flushes_));
}

bool CallbackTest::causes(std::string const& event, std::string const& to,
                          std::string const& payload) {
    auto const before = events.count(event);
    EXPECT_EQ(client->publish(to, payload, 0, false), Error::SUCCESS);
    flush();
    return events.count(event) > before;
}

bool CallbackTest::peerReceives(std::string const& on, std::string const& payload) const {
    return peer.waitFor([&](auto const& all) {
        return std::any_of(all.begin(), all.end(), [&](auto const& message) {
            return message.topic == on && message.payload == payload;
        });
    });
}

std::size_t CallbackTest::countAtPeer(std::string const& on) const {
    auto const all = peer.messages();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [&](auto const& message) { return message.topic == on; }));
}

void CallbackTest::destroyConnectedClient() {
    if (client->communicationState() == conv::ComState::DISCONNECTED) {
        client->connect("", -1, TIMEOUT_S);
    }
    EXPECT_TRUE(support::becomesConnected(*client));
    destroyClient();
}

void CallbackTest::destroyClient() {
    objects.destroyUsersOfClient();
    callers.destroyUsersOfClient();
    client.reset();
}

void CallbackTest::sendRequest(std::string const& to) {
    EXPECT_EQ(client->publish(to + "/" + support::uniqueId().base64URL(),
                              R"({"$reqId": 1, "number": 7, "client": 1.5})", 0, false),
              Error::SUCCESS);
    flush();
}
