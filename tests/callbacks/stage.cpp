#include "stage.hpp"

#include <zym/common/lwjson.hpp>

using zym::common::Uuid;
using Error = mqtt::MqttClient::Error;

namespace {

std::unique_ptr<World> theWorld;

/// The world ends before the watchdog and everything static.
class Shared final : public testing::Environment {
public:
    void TearDown() override { theWorld.reset(); }
};

auto* const shared = testing::AddGlobalTestEnvironment(new Shared);

std::string nextRoot() {
    static int count = 0;
    return "stage" + std::to_string(++count);
}

/// What binding and unbinding are answered with: success, and nothing to say.
struct Consent final : mqtt::RequestReplyServer::Listener {
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&, Uuid const&, Uuid const&,
                                                      mqtt::RequestReplyData const&,
                                                      mqtt::RequestReply::ErrorCode&) override {
        return nullptr;
    }
};

} // namespace

World& world() {
    if (theWorld == nullptr) {
        theWorld = std::make_unique<World>();
    }
    return *theWorld;
}

support::BrokerOptions World::quick() {
    support::BrokerOptions options;
    options.nodelay = true;
    return options;
}

World::World() {
    static Consent consent;
    echo.subscribe(&ear, Uuid::NIL, std::make_shared<NumberData>());
    bind.subscribe(&consent, device, std::make_shared<mqtt::BindRequestData>());
    unbind.subscribe(&consent, device, nullptr);
    peer.publish("far/links",
                 R"({"members@count": 2, "members": [{"@id": "far/one"}, {"@id": "far/two"}]})", 2,
                 true);
    peer.publish("far/one/identification", R"({"name": "one"})", 2, true);
    peer.publish("far/two/identification", R"({"name": "two"})", 2, true);
    // The subscriptions have reached the broker.
    client->publishWait("far/settled", "", 1, false, PATIENCE);
}

Things::Things(Stage& on, std::string const& below, Ear& listener)
    : stage(on), root(below), ear(listener) {}

mqtt::MqttData<mqtt::Link>& Things::makeEndpoint() {
    if (endpoint == nullptr) {
        endpoint = std::make_unique<mqtt::MqttData<mqtt::Link>>(*stage.client, root + "/value");
    }
    return *endpoint;
}

mqtt::RequestReplyClient& Things::makeRequester(std::string const& service) {
    if (requester == nullptr) {
        requester = std::make_unique<mqtt::RequestReplyClient>(*stage.client, "far", "", service);
    }
    return *requester;
}

mqtt::RequestReplyServer& Things::makeServer() {
    if (server == nullptr) {
        server = std::make_unique<mqtt::RequestReplyServer>(*stage.client, root, "", "service");
    }
    return *server;
}

mqtt::SynchronizedTimeBaseMqttProxy& Things::makeTimeProxy() {
    if (timeProxy == nullptr) {
        timeProxy =
            std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(*stage.client, "far", id, &ear);
    }
    return *timeProxy;
}

CountingTimeBase& Things::makeTimeBase() {
    if (timeBase == nullptr) {
        timeBase = std::make_unique<CountingTimeBase>(*stage.client, root, id);
    }
    return *timeBase;
}

mqtt::BinderMqttProxy& Things::makeBinder() {
    if (binder == nullptr) {
        binder = std::make_unique<mqtt::BinderMqttProxy>(*stage.client, "far", "", id,
                                                         root + "/bound", &ear);
    }
    return *binder;
}

mqtt::ServiceDiscovererMqtt& Things::makeDiscoverer(std::string const& topic) {
    if (discoverer == nullptr) {
        discoverer = std::make_unique<mqtt::ServiceDiscovererMqtt>(*stage.client, topic);
    }
    return *discoverer;
}

mqtt::TopicCleaner& Things::makeCleaner() {
    if (cleaner == nullptr) {
        cleaner = std::make_unique<mqtt::TopicCleaner>(&ear, id, world().broker.host(),
                                                       world().broker.port());
    }
    return *cleaner;
}

zym::common::Timer& Things::makeTimer() {
    if (timer == nullptr) {
        timer = std::make_unique<zym::common::Timer>([&heard = ear] { heard.hear("timer"); },
                                                     std::chrono::hours(1), true);
    }
    return *timer;
}

void Things::restartTimer(std::chrono::milliseconds period, bool once) const {
    std::unique_lock lock(timer->mutex());
    timer->setPeriod(period, lock);
    timer->once = once;
    timer->restart(lock);
}

mqtt::RequestReply::ErrorCode Things::request() const {
    return requester->request(&ear, id, Uuid::NIL, std::make_shared<NumberData>(7),
                              std::make_shared<NumberData>(), nullptr, AN_HOUR);
}

Error Things::serve() {
    return makeServer().subscribe(&ear, Uuid::NIL, std::make_shared<NumberData>());
}

Stage::Stage() : root(nextRoot()) {
    peer.subscribe(root + "/#");
    EXPECT_EQ(client->subscribe(topic("flush"), &flushEar, 0), Error::SUCCESS);
}

void Stage::flush() {
    auto const topicOfFlush = topic("flush");
    EXPECT_EQ(client->publish(topicOfFlush, "now", 0, false), Error::SUCCESS);
    EXPECT_TRUE(flushEar.waitFor("message " + topicOfFlush, ++flushes_));
}

bool Stage::reaches(std::string const& to, std::string const& payload, std::string const& event) {
    auto const before = ear.count(event);
    EXPECT_EQ(client->publish(to, payload, 0, false), Error::SUCCESS);
    flush();
    return ear.count(event) > before;
}

bool Stage::peerSees(std::string const& expected, std::string const& payload) const {
    return peer.waitFor([&](auto const& all) {
        return std::any_of(all.begin(), all.end(), [&](auto const& message) {
            return message.topic == expected && message.payload == payload;
        });
    });
}

std::size_t Stage::countAtPeer(std::string const& of) const {
    auto const all = peer.messages();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [&](auto const& message) { return message.topic == of; }));
}

void Stage::vanish() {
    if (client->communicationState() == conv::ComState::DISCONNECTED) {
        client->connect("", -1, PATIENCE);
    }
    EXPECT_TRUE(support::becomesConnected(*client));
    things.endpoint.reset();
    client.reset();
}

void Stage::ask(std::string const& of) {
    auto const request = of + "/" + support::uniqueId().base64URL();
    EXPECT_EQ(client->publish(request, R"({"$reqId": 1, "number": 7, "client": 1.5})", 0, false),
              Error::SUCCESS);
    flush();
}
