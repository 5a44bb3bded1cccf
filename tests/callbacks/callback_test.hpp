#pragma once

#include "event_recorder.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/test_client.hpp"

#include <mqtt/service_discoverer.hpp>
#include <zym/common/timer.hpp>

#include <gtest/gtest.h>

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
        if (hook) {
            hook();
        }
        return mqtt::SynchronizedTimeBaseMqttAdaptor::localTimeBase();
    }

    mutable std::atomic<int> reads{0};
    std::function<void()> hook; ///< called in each reading; to be set before the first one
};

/// What the tests of one process share: a broker, and a device below "far" with the service
/// "echo", a time base, a server of bindings, and two entities, linked from "far/links".
struct SharedDevice {
    SharedDevice();

    zym::common::Uuid const id = support::uniqueId();
    support::Broker broker{support::BrokerOptions{true, false, false, 0, {}}};
    EventRecorder events;
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(broker);
    mqtt::RequestReplyServer echo{*client, "far", "", "echo"};
    mqtt::RequestReplyServer bind{*client, "far", "", "bind"};
    mqtt::RequestReplyServer unbind{*client, "far", "", "unbind"};
    CountingTimeBase timeBase{*client, "far", id};
};

/// Made at the first call; destroyed at the end of all tests.
SharedDevice& device();

/// One object of each class, below a topic of their own.
struct Objects {
    Objects(std::unique_ptr<mqtt::MqttClient> const& on, std::string below,
            EventRecorder& listener);

    /// Destroys those that use the client.
    void destroyUsersOfClient();
    void restartTimer(std::chrono::milliseconds period, bool once) const;
    mqtt::RequestReply::ErrorCode request() const;
    mqtt::MqttClient::Error serve();

    std::unique_ptr<mqtt::MqttClient> const& client;
    std::string const root;
    EventRecorder& events;
    zym::common::Uuid const id = support::uniqueId();
    std::unique_ptr<mqtt::MqttData<mqtt::Link>> endpoint;
    std::unique_ptr<mqtt::RequestReplyClient> requester; ///< of the shared device's "echo"
    std::unique_ptr<mqtt::RequestReplyServer> server;
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttProxy> timeProxy;
    std::unique_ptr<CountingTimeBase> timeBase;
    std::unique_ptr<mqtt::BinderMqttProxy> binder;
    std::unique_ptr<mqtt::ServiceDiscovererMqtt> discoverer; ///< of the shared device's entities
    std::future<bool> discovery;
    std::unique_ptr<mqtt::TopicCleaner> cleaner;
    std::unique_ptr<zym::common::Timer> timer;
    std::atomic<int> timeReads{0}; ///< of the shared device's time base, as of an earlier moment
};

/// What the guide says of a call.
enum class Verdict { WORKS, REFUSED, IN_VAIN };

/// What one test works with: a client, the objects whose operations are called (`objects`), and the
/// objects in whose callbacks that happens (`callers`), unless these are the same.
class CallbackTest {
public:
    CallbackTest();

    std::string topic(std::string const& below) const { return root + "/" + below; }
    /// Returns when the client has handled all that was published through it before at QoS 0.
    void flush();
    /// Whether publishing on this topic makes `objects.events` record the event.
    bool causes(std::string const& event, std::string const& topic, std::string const& payload);
    bool peerReceives(std::string const& topic, std::string const& payload) const;
    std::size_t countAtPeer(std::string const& topic) const;
    /// Connects the client if it is not, and destroys it: the broker publishes its will.
    void destroyConnectedClient();
    /// With all that use it.
    void destroyClient();
    /// Publishes a request as another client would, and returns when it was handled.
    void sendRequest(std::string const& topic);

    std::string const root;
    bool sameObject = false; ///< the call is made in a callback of the very object
    Verdict verdict = Verdict::WORKS;
    std::uint32_t timeoutS = HOUR_S; ///< of operations that wait
    std::atomic<int> topicsToClean{0};
    support::RawPeer peer{device().broker};
    EventRecorder events;
    EventRecorder callersEvents;
    EventRecorder flushEvents;
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(device().broker);
    std::unique_ptr<mqtt::MqttClient> another;
    Objects objects{client, root, events};
    Objects callers{client, root + "/callers", callersEvents};

private:
    std::size_t flushes_ = 0;
};

/// A callback of the library, and how to make an object call it.
struct Callback {
    std::string className; ///< of the object that calls
    std::string name;      ///< "onReply"
    std::string thread;    ///< that calls it: "worker", "caller" or "timer"
    std::string event;     ///< what the `EventRecorder` records of it begins with this
    /// Makes an object of these call it. May be called repeatedly.
    std::function<void(CallbackTest&, Objects&)> provoke;
};

/// One for each callback, and each thread that calls it.
std::vector<Callback> const& callbacks();
/// The first one with this class or name.
Callback const& callbackOf(std::string_view classNameOrName);
