#pragma once

#include "event_recorder.hpp"

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/test_client.hpp"

#include <mqtt/service_discoverer.hpp>
#include <zym/common/timer.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// Time-outs in seconds: one that ends only in a test that fails, and one that the watchdog
/// forestalls, for waits in vain, which must return at once.
constexpr std::uint32_t TIMEOUT_S = 30;
constexpr std::uint32_t HOUR_S = 3600;

/// A time base that counts how often its time is read.
class CountingTimeBase final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    using mqtt::SynchronizedTimeBaseMqttAdaptor::SynchronizedTimeBaseMqttAdaptor;
    ~CountingTimeBase() override { release(); }
    CountingTimeBase(CountingTimeBase const&) = delete;
    CountingTimeBase& operator=(CountingTimeBase const&) = delete;

    double localTimeBase() const override {
        ++reads;
        return mqtt::SynchronizedTimeBaseMqttAdaptor::localTimeBase();
    }

    mutable std::atomic<int> reads{0};
};

/// What the tests of one process share: a broker, and a device below "far" with the service
/// "echo", a time base, a server of bindings, and two entities, linked from "far/links".
struct SharedDevice {
    SharedDevice() {
        using zym::common::Uuid;
        echo.subscribe(&events, Uuid::NIL, std::make_shared<NumberData>());
        bind.subscribe(&events, id, std::make_shared<mqtt::BindRequestData>());
        unbind.subscribe(&events, id, nullptr);
        mqtt::test::RawPeer peer(broker);
        peer.publish("far/links",
                     R"({"members@count": 2, "members": [{"@id": "far/one"}, {"@id": "far/two"}]})",
                     2, true);
        peer.publish("far/one/identification", R"({"name": "one"})", 2, true);
        peer.publish("far/two/identification", R"({"name": "two"})", 2, true);
        // With the acknowledgement, the subscriptions have reached the broker too.
        client->publishWait("far/ready", "", 1, false, TIMEOUT_S);
    }

    zym::common::Uuid const id = mqtt::test::uniqueId();
    mqtt::test::Broker broker{mqtt::test::BrokerOptions{true, false, false, {}}};
    EventRecorder events;
    std::unique_ptr<mqtt::MqttClient> client = mqtt::test::testClient(broker);
    mqtt::RequestReplyServer echo{*client, "far", "", "echo"};
    mqtt::RequestReplyServer bind{*client, "far", "", "bind"};
    mqtt::RequestReplyServer unbind{*client, "far", "", "unbind"};
    CountingTimeBase timeBase{*client, "far", id};
    std::atomic<int> tests{0}; ///< begun so far
};

/// Made at the first call; destroyed at the end of all tests.
inline SharedDevice& device() {
    static SharedDevice instance;
    return instance;
}

/// One object of each class, below a topic of their own.
struct Objects {
    /// Destroys those that use the client.
    void destroyUsersOfClient() {
        endpoint.reset();
        requester.reset();
        server.reset();
        timeProxy.reset();
        timeBase.reset();
        binder.reset();
        discoverer.reset();
    }
    void restartTimer(std::chrono::milliseconds period, bool once) const {
        std::unique_lock lock(timer->mutex());
        timer->setPeriod(period, lock);
        timer->once = once;
        timer->restart(lock);
    }
    mqtt::RequestReply::ErrorCode request() const {
        return requester->request(&events, id, zym::common::Uuid::NIL,
                                  std::make_shared<NumberData>(7), std::make_shared<NumberData>(),
                                  nullptr, HOUR_S);
    }
    mqtt::MqttClient::Error serve() {
        return server->subscribe(&events, zym::common::Uuid::NIL, std::make_shared<NumberData>());
    }

    /// A client of a service of the shared device.
    std::unique_ptr<mqtt::RequestReplyClient> requesterOf(std::string const& service) const {
        return std::make_unique<mqtt::RequestReplyClient>(*client, "far", "", service);
    }
    std::unique_ptr<mqtt::BinderMqttProxy> binderOf(std::string const& base) const {
        return std::make_unique<mqtt::BinderMqttProxy>(*client, base, "", id, root + "/bound",
                                                       &events);
    }

    std::unique_ptr<mqtt::MqttClient> const& client;
    std::string const root;
    EventRecorder& events;
    zym::common::Uuid const id = mqtt::test::uniqueId();
    std::unique_ptr<mqtt::MqttData<mqtt::Link>> endpoint =
        std::make_unique<mqtt::MqttData<mqtt::Link>>(*client, root + "/value");
    std::unique_ptr<mqtt::RequestReplyClient> requester = requesterOf("echo");
    std::unique_ptr<mqtt::RequestReplyServer> server =
        std::make_unique<mqtt::RequestReplyServer>(*client, root, "", "service");
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttProxy> timeProxy =
        std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(*client, "far", id, &events);
    std::unique_ptr<CountingTimeBase> timeBase =
        std::make_unique<CountingTimeBase>(*client, root, id);
    std::unique_ptr<mqtt::BinderMqttProxy> binder = binderOf("far");
    std::unique_ptr<mqtt::ServiceDiscovererMqtt> discoverer = ///< of the shared device's entities
        std::make_unique<mqtt::ServiceDiscovererMqtt>(*client, "far/links");
    std::future<bool> discovery{};
    std::unique_ptr<mqtt::TopicCleaner> cleaner = std::make_unique<mqtt::TopicCleaner>(
        &events, id, device().broker.host(), device().broker.port(),
        device().broker.connectionOptions());
    std::unique_ptr<zym::common::Timer> timer = std::make_unique<zym::common::Timer>(
        [this] { events.record("timer"); }, std::chrono::hours(1), true);
    std::atomic<int> timeReads{0}; ///< of the shared device's time base, as of an earlier moment
};

/// What the guide says of a call.
enum class Verdict { WORKS, REFUSED, IN_VAIN };

/// What one test works with: a client, the objects whose operations are called (`objects`), and the
/// objects in whose callbacks that happens (`callers`).
class CallbackTest {
public:
    using Error = mqtt::MqttClient::Error;

    CallbackTest() {
        peer.subscribe(root + "/#");
        EXPECT_EQ(client->subscribe(topic("flush"), &flushEvents, 0), Error::SUCCESS);
    }

    std::string topic(std::string const& below) const { return root + "/" + below; }
    void publish(std::string const& on, std::string const& payload) const {
        EXPECT_EQ(client->publish(on, payload, 0, false), Error::SUCCESS);
    }
    /// Returns when the client has handled all that was published through it before at QoS 0.
    void flush() {
        publish(topic("flush"), "now");
        EXPECT_TRUE(flushEvents.waitFor("message " + topic("flush"), ++flushes_));
    }
    /// Whether publishing on this topic makes `objects.events` record the event.
    bool causes(std::string const& event, std::string const& on, std::string const& payload) {
        auto const before = events.count(event);
        publish(on, payload);
        flush();
        return events.count(event) > before;
    }
    bool peerReceives(std::string const& on, std::string const& payload) const {
        return peer.waitFor([&](auto const& all) {
            return std::any_of(all.begin(), all.end(), [&](auto const& message) {
                return message.topic == on && message.payload == payload;
            });
        });
    }
    /// Connects the client if it is not, and destroys it: the broker publishes its will.
    void destroyConnectedClient() {
        client->connect("", -1, TIMEOUT_S);
        EXPECT_TRUE(mqtt::test::becomesConnected(*client));
        destroyClient();
    }
    /// With all that use it.
    void destroyClient() {
        objects.destroyUsersOfClient();
        callers.destroyUsersOfClient();
        client.reset();
    }
    /// Publishes a request as another client would, and returns when it was handled.
    void sendRequest(std::string const& to) {
        publish(to + "/" + mqtt::test::uniqueId().base64URL(),
                R"({"$reqId": 1, "number": 7, "client": 1.5})");
        flush();
    }

    std::string const root = "test" + std::to_string(++device().tests);
    Verdict verdict = Verdict::WORKS;
    std::uint32_t timeoutS = HOUR_S; ///< of operations that wait
    std::atomic<int> topicsToClean{0};
    mqtt::test::RawPeer peer{device().broker};
    EventRecorder events;
    EventRecorder callersEvents;
    EventRecorder flushEvents;
    std::unique_ptr<mqtt::MqttClient> client = mqtt::test::testClient(device().broker);
    std::unique_ptr<mqtt::MqttClient> another;
    Objects objects{client, root, events};
    Objects callers{client, root + "/callers", callersEvents};

private:
    std::size_t flushes_ = 0;
};

/// A callback of the library, and how to make an object call it.
struct Callback {
    std::string name;   ///< "onReply"
    std::string thread; ///< that calls it: "worker", "caller" or "timer"
    std::string event;  ///< what the `EventRecorder` records of it begins with this
    /// Makes an object of these call it. May be called repeatedly.
    std::function<void(CallbackTest&, Objects&)> provoke;
};

/// One for each callback, and each thread that calls it.
std::vector<Callback> const& callbacks();
/// The first one with this name.
Callback const& callbackNamed(std::string_view name);
