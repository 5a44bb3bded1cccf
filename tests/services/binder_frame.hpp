#pragma once

#include "requestreply/blocking_thread.hpp"
#include "requestreply/client_frame.hpp"
#include "requestreply/server_session.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using BinderError = zym::common::Binder::Error;

/// What a listener was told: "bound" or "unbound", and how that ended.
using BindingEvent = std::pair<std::string, BinderError>;

inline BindingEvent bound(BinderError error) {
    return {"bound", error};
}

inline BindingEvent unbound(BinderError error) {
    return {"unbound", error};
}

/// Tells the threads of its calls apart, and lets the test do something within them.
class BindingRecorder final : public zym::common::BinderProxy::Listener {
public:
    using Hook = std::function<void(BindingEvent const&)>;

    /// Called within the calls to come, after they were kept.
    void setHook(Hook hook) {
        hook_.change([&](Hook& current) { current = std::move(hook); });
    }

    std::vector<BindingEvent> events() const { return events_.copy(); }
    std::size_t count() const { return events().size(); }
    bool waitForCount(std::size_t count) const {
        return events_.waitFor([&](auto const& events) { return events.size() >= count; });
    }
    std::thread::id lastThread() const { return lastThread_.copy(); }

    void onBound(BinderError error) override { keep(bound(error)); }
    void onUnbound(BinderError error) override { keep(unbound(error)); }

private:
    void keep(BindingEvent const& event) {
        auto const hook = hook_.copy();
        lastThread_.change([](auto& thread) { thread = std::this_thread::get_id(); });
        events_.change([&](auto& events) { events.push_back(event); });
        if (hook) {
            hook(event);
        }
    }

    support::Watched<std::vector<BindingEvent>> events_;
    support::Watched<std::thread::id> lastThread_;
    support::Watched<Hook> hook_;
};

inline ServerListener::Answer saying(int code) {
    return [code](mqtt::RequestReplyData const&, Code& error) -> ServerListener::Data {
        error = static_cast<Code>(code);
        return nullptr;
    };
}

/// Where proxies ask, and what they want to be bound.
inline mqtt::Topic const PLANT{"plant/pump"};
inline mqtt::Topic const DESK{"desk"};
inline mqtt::Topic const PANEL{"plant/panel"};

/// A server of bindings with an MQTT client of its own. It consents to everything, and offers a
/// time of its own.
class BindServer {
public:
    using Uuid = zym::common::Uuid;

    /// @param ahead so many seconds its clock is ahead of this machine's
    explicit BindServer(support::Broker const& broker, Uuid const& identity = support::uniqueId(),
                        double ahead = 10000)
        : id(identity),
          ahead_(ahead),
          mqtt_(support::testClient(broker)),
          bind_(*mqtt_, PLANT, DESK, "bind"),
          unbind_(*mqtt_, PLANT, DESK, "unbind") {
        EXPECT_EQ(mqtt_->subscribe(markTopic(), &marker_, 0), mqtt::MqttClient::Error::SUCCESS);
        serveBindings();
        serveUnbindings();
        offerTime();
    }

    void serveBindings() { serve(bind_, &bindings, std::make_shared<mqtt::BindRequestData>()); }
    void serveUnbindings() { serve(unbind_, &unbindings, mqtt::NO_DATA); }
    /// Requests are answered, that nobody is there to ask.
    void leaveBindingsToNobody() {
        ignoreBindings();
        serve(bind_, nullptr, mqtt::NO_DATA);
    }
    void ignoreBindings() { bind_.unsubscribeWait(); }
    void ignoreUnbindings() { unbind_.unsubscribeWait(); }
    void offerTime() {
        clock_ = std::make_unique<Clock>(*mqtt_, id, ahead_);
        settle();
    }
    void withdrawTime() { clock_.reset(); }
    std::uint32_t timeBase() const { return clock_->timeBase(); }

    /// Returns when the broker knows all subscriptions that were made.
    void settle() {
        auto const mark = std::to_string(++marks_);
        EXPECT_EQ(mqtt_->publish(markTopic(), mark, 2, false), mqtt::MqttClient::Error::SUCCESS);
        EXPECT_TRUE(marker_.waitForPayload(mark));
    }
    mqtt::MqttClient const& mqtt() const { return *mqtt_; }

    Uuid const id;
    ServerListener bindings;
    ServerListener unbindings;

private:
    class Clock : public mqtt::SynchronizedTimeBaseMqttAdaptor {
    public:
        Clock(mqtt::MqttClient& client, Uuid const& server, double ahead)
            : SynchronizedTimeBaseMqttAdaptor(client, PLANT, server), ahead_(ahead) {}
        ~Clock() override { release(); }

        double localTimeBase() const override {
            return SynchronizedTimeBaseMqttAdaptor::localTimeBase() + ahead_;
        }

    private:
        double const ahead_;
    };

    void serve(mqtt::RequestReplyServer& service, ServerListener* listener,
               std::shared_ptr<mqtt::RequestReplyData> data) {
        EXPECT_EQ(service.subscribe(listener, id, std::move(data)),
                  mqtt::MqttClient::Error::SUCCESS);
        settle();
    }

    std::string markTopic() const { return "settled/" + id.base64URL(); }

    double const ahead_;
    int marks_ = 0;
    support::MessageRecorder marker_;
    std::unique_ptr<mqtt::MqttClient> mqtt_;
    mqtt::RequestReplyServer bind_;
    mqtt::RequestReplyServer unbind_;
    std::unique_ptr<Clock> clock_;
};

/// A proxy, a broker, and a stranger who sees all.
class WithAProxy : public testing::Test {
protected:
    using Uuid = zym::common::Uuid;
    using Proxy = mqtt::BinderMqttProxy;

    WithAProxy() {
        peer.subscribe("plant/#");
        proxy = makeProxy();
    }

    static support::BrokerOptions quick() {
        support::BrokerOptions options;
        options.nodelay = true;
        return options;
    }

    std::unique_ptr<Proxy> makeProxy() {
        return std::make_unique<Proxy>(*mqtt, PLANT, DESK, id, PANEL, &recorder);
    }

    static bool isRequest(support::Message const& message, std::string const& name) {
        return message.topic.find("/" + name + "?\?/") != std::string::npos;
    }

    /// What the broker has carried of the requests of this name, so far.
    std::size_t requests(std::string const& name) const {
        auto const all = peer.messages();
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [&](auto const& message) { return isRequest(message, name); }));
    }

    support::Message awaitRequest(std::string const& name, std::size_t count = 1) {
        support::Message found;
        EXPECT_TRUE(peer.waitFor([&](auto const& all) {
            std::size_t seen = 0;
            for (auto const& message : all) {
                if (!isRequest(message, name)) {
                    continue;
                }
                found = message;
                if (++seen == count) {
                    return true;
                }
            }
            return false;
        })) << "the request "
            << count << " of " << name;
        return found;
    }

    /// Waits until everything that our client has sent was carried.
    void settle() {
        auto const mark = "plant/mark/" + std::to_string(++marks_);
        EXPECT_EQ(mqtt->publish(mark, "x", 2, false), mqtt::MqttClient::Error::SUCCESS);
        EXPECT_TRUE(peer.waitFor([&](auto const& all) {
            return std::any_of(all.begin(), all.end(),
                               [&](auto const& message) { return message.topic == mark; });
        }));
    }

    support::Broker broker{quick()};
    support::RawPeer peer{broker};
    BindingRecorder recorder;
    std::unique_ptr<mqtt::MqttClient> mqtt = support::testClient(broker);
    Uuid id = support::uniqueId();
    std::unique_ptr<Proxy> proxy;

private:
    int marks_ = 0;
};

/// The same with a server.
class WithAServer : public WithAProxy {
protected:
    void bind() {
        auto const before = recorder.count();
        ASSERT_EQ(proxy->bindSync(server.id, AN_HOUR), BinderError::SUCCESS);
        ASSERT_EQ(recorder.count(), before + 1);
    }

    /// Not bound, and free to bind.
    void expectFree() {
        EXPECT_EQ(proxy->unbind(AN_HOUR), BinderError::NOT_BOUND);
        EXPECT_EQ(proxy->unbindSync(AN_HOUR), BinderError::NOT_BOUND);
        EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    }

    void expectBound() {
        EXPECT_EQ(proxy->bind(server.id, AN_HOUR), BinderError::ALREADY_BOUND);
        EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), BinderError::ALREADY_BOUND);
        EXPECT_TRUE(proxy->isTimeBaseSynchronized());
    }

    /// Whether this is the server's time, as far as a busy machine can tell.
    static bool isTimeOf(BindServer const& server, std::uint32_t time) {
        auto const reference = server.timeBase();
        return time + 120 >= reference && time <= reference + 120;
    }

    BindServer server{broker};
};

/// Lets a test into what deriving classes can do.
class DerivedProxy : public mqtt::BinderMqttProxy {
public:
    using Hook = std::function<void()>;

    DerivedProxy(mqtt::MqttClient& client, zym::common::Uuid const& self,
                 zym::common::BinderProxy::Listener* listener)
        : zym::common::BinderProxy(self, listener),
          BinderMqttProxy(client, PLANT, DESK, self, PANEL, listener) {}
    ~DerivedProxy() override { release(); }

    using BinderMqttProxy::endBinding;
    using BinderMqttProxy::serverUuid;

    /// Whether to go on as every proxy does.
    void setConsent(bool consent) { consents_ = consent; }
    int timesSynchronized() const { return times_.copy(); }
    bool waitForTimes(int count) const {
        return times_.waitFor([&](int times) { return times >= count; });
    }

protected:
    void onTimeSynchronized() override {
        bool const consents = consents_;
        times_.change([](int& times) { ++times; });
        if (consents) {
            BinderMqttProxy::onTimeSynchronized();
        }
    }

private:
    std::atomic<bool> consents_{true};
    support::Watched<int> times_;
};
