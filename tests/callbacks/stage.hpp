#pragma once

#include "ear.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/test_client.hpp"

#include <mqtt/service_discoverer.hpp>
#include <zym/common/timer.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>

/// Long enough never to end a test that does not fail anyway.
constexpr std::uint32_t PATIENCE = 30;
constexpr std::uint32_t AN_HOUR = 3600;

/// A time base that counts how often it is asked.
class CountingTimeBase final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    using mqtt::SynchronizedTimeBaseMqttAdaptor::SynchronizedTimeBaseMqttAdaptor;
    ~CountingTimeBase() override { release(); }
    CountingTimeBase(CountingTimeBase const&) = delete;
    CountingTimeBase& operator=(CountingTimeBase const&) = delete;

    double localTimeBase() const override {
        ++asked;
        if (whenAsked) {
            whenAsked();
        }
        return mqtt::SynchronizedTimeBaseMqttAdaptor::localTimeBase();
    }

    mutable std::atomic<int> asked{0};
    std::function<void()> whenAsked; ///< set it before anybody asks
};

/// What the tests of one process share: a broker, and a device below "far" with the service
/// "echo", a time base, a server of bindings, and two entities, linked from "far/links".
struct World {
    World();
    static support::BrokerOptions quick();

    zym::common::Uuid const device = support::uniqueId();
    support::Broker broker{quick()};
    support::RawPeer peer{broker};
    Ear ear;
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(broker);
    mqtt::RequestReplyServer echo{*client, "far", "", "echo"};
    mqtt::RequestReplyServer bind{*client, "far", "", "bind"};
    mqtt::RequestReplyServer unbind{*client, "far", "", "unbind"};
    CountingTimeBase timeBase{*client, "far", device};
};

/// Made when it is asked for first; gone at the end of all tests.
World& world();

class Stage;

/// An object of each class, below a topic of their own; all are made by whoever needs them.
struct Things {
    Things(Stage& on, std::string const& below, Ear& listener);

    mqtt::MqttData<mqtt::Link>& makeEndpoint();
    mqtt::RequestReplyClient& makeRequester(std::string const& service);
    mqtt::RequestReplyServer& makeServer();
    mqtt::SynchronizedTimeBaseMqttProxy& makeTimeProxy();
    CountingTimeBase& makeTimeBase();
    mqtt::BinderMqttProxy& makeBinder();
    mqtt::ServiceDiscovererMqtt& makeDiscoverer(std::string const& topic);
    mqtt::TopicCleaner& makeCleaner();
    zym::common::Timer& makeTimer();

    void restartTimer(std::chrono::milliseconds period, bool once) const;
    mqtt::RequestReply::ErrorCode request() const;
    mqtt::MqttClient::Error serve();

    Stage& stage;
    std::string const root;
    Ear& ear;
    zym::common::Uuid const id = support::uniqueId();
    std::unique_ptr<mqtt::MqttData<mqtt::Link>> endpoint;
    std::unique_ptr<mqtt::RequestReplyClient> requester;
    std::unique_ptr<mqtt::RequestReplyServer> server;
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttProxy> timeProxy;
    std::unique_ptr<CountingTimeBase> timeBase;
    std::unique_ptr<mqtt::BinderMqttProxy> binder;
    std::unique_ptr<mqtt::ServiceDiscovererMqtt> discoverer;
    std::future<bool> discovery;
    std::unique_ptr<mqtt::TopicCleaner> cleaner;
    std::unique_ptr<zym::common::Timer> timer;
    int asked = 0; ///< how often the device had been asked for its time
};

/// One test: a client, the things whose operations are called, and the things in whose calls that
/// happens. Both can be the same.
class Stage {
public:
    Stage();

    std::string topic(std::string const& below) const { return root + "/" + below; }
    /// Returns when the client has dealt with all that was published through it before at QoS 0.
    void flush();
    /// Whether a message of this topic reaches the things' ear.
    bool reaches(std::string const& topic, std::string const& payload, std::string const& event);
    bool peerSees(std::string const& topic, std::string const& payload) const;
    std::size_t countAtPeer(std::string const& topic) const;
    /// Connects the client if it is not, and lets it go without a word: the broker publishes its
    /// will.
    void vanish();
    /// Publishes a request in words of a stranger.
    void ask(std::string const& topic);

    std::string const root;
    bool onWorker = false; ///< called on the client's worker thread
    bool own = false;      ///< called by the very object
    bool refused = false;  ///< the call is to be refused
    support::RawPeer peer{world().broker};
    Ear ear;
    Ear callersEar;
    Ear flushEar;
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(world().broker);
    std::unique_ptr<mqtt::MqttClient> another;
    Things things{*this, root, ear};
    Things callers{*this, root + "/callers", callersEar};

private:
    std::size_t flushes_ = 0;
};
