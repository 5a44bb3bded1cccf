#pragma once

#include "requestreply/server_fixture.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>

using BinderError = zym::common::Binder::Error;

/// A call of a listener: "bound" or "unbound", and the result.
using BindingEvent = std::pair<std::string, BinderError>;

inline BindingEvent bound(BinderError error) {
    return {"bound", error};
}

inline BindingEvent unbound(BinderError error) {
    return {"unbound", error};
}

class BindingRecorder final : public zym::common::BinderProxy::Listener,
                              public mqtt::test::CallRecorder<BindingEvent> {
public:
    std::thread::id lastThread() const { return lastThread_.copy(); }

    void onBound(BinderError error) override { keep(bound(error)); }
    void onUnbound(BinderError error) override { keep(unbound(error)); }

private:
    void keep(BindingEvent const& event) {
        lastThread_.change([](auto& thread) { thread = std::this_thread::get_id(); });
        record(event);
    }

    mqtt::test::Watched<std::thread::id> lastThread_;
};

/// An answer with this code and no payload.
inline ServerListener::Answer replying(int code) {
    return [code](mqtt::RequestReplyData const&, Code& error) -> ServerListener::Data {
        error = static_cast<Code>(code);
        return nullptr;
    };
}

/// The topics of all proxies: of the requests, and the one that is to be bound.
inline mqtt::Topic const BASE_TOPIC{"svc/pump"};
inline mqtt::Topic const SUB_PATH{"desk"};
inline mqtt::Topic const BOUND_TOPIC{"svc/panel"};

/// A server of bindings with an MQTT client of its own. It grants every request and has a clock.
class BindingServer {
public:
    using Uuid = zym::common::Uuid;

    /// @param ahead seconds that its clock is ahead of this machine's
    explicit BindingServer(mqtt::test::Broker const& broker, double ahead = 10000)
        : ahead_(ahead),
          mqtt_(mqtt::test::testClient(broker)),
          bind_(*mqtt_, BASE_TOPIC, SUB_PATH, "bind"),
          unbind_(*mqtt_, BASE_TOPIC, SUB_PATH, "unbind") {
        serveBindings();
        serveUnbindings();
        offerTime();
    }

    void serveBindings() { serve(bind_, &bindings, std::make_shared<mqtt::BindRequestData>()); }
    void serveUnbindings() { serve(unbind_, &unbindings, mqtt::NO_DATA); }
    /// Requests are answered with NO_LISTENER.
    void serveBindingsWithoutAListener() {
        ignoreBindings();
        serve(bind_, nullptr, mqtt::NO_DATA);
    }
    void ignoreBindings() { bind_.unsubscribeWait(); }
    void ignoreUnbindings() { unbind_.unsubscribeWait(); }
    void offerTime() {
        clock_ = std::make_unique<Clock>(*mqtt_, id, ahead_);
        awaitSubscriptions();
    }
    void withdrawTime() { clock_.reset(); }
    std::uint32_t timeBase() const { return clock_->timeBase(); }

    Uuid const id = mqtt::test::uniqueId();
    ServerListener bindings;
    ServerListener unbindings;

private:
    class Clock : public mqtt::SynchronizedTimeBaseMqttAdaptor {
    public:
        Clock(mqtt::MqttClient& client, Uuid const& server, double ahead)
            : SynchronizedTimeBaseMqttAdaptor(client, BASE_TOPIC, server), ahead_(ahead) {}
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
        awaitSubscriptions();
    }
    /// Returns when the broker knows all subscriptions that were made. `publishWait` may time out
    /// here, because replies are acknowledged at the same time.
    void awaitSubscriptions() { receiveAll(*mqtt_); }

    double const ahead_;
    std::unique_ptr<mqtt::MqttClient> mqtt_;
    mqtt::RequestReplyServer bind_;
    mqtt::RequestReplyServer unbind_;
    std::unique_ptr<Clock> clock_;
};

/// A proxy and a server, and a raw peer that receives all messages.
class ProxyAndServer : public SessionOnABroker {
protected:
    using Proxy = mqtt::BinderMqttProxy;

    std::unique_ptr<Proxy> makeProxy() {
        return std::make_unique<Proxy>(*mqtt, BASE_TOPIC, SUB_PATH, id, BOUND_TOPIC, &recorder);
    }

    /// How many requests of this name our client has sent so far.
    std::size_t requests(std::string const& name) {
        return messagesWith(seen(), "/" + name + "?\?/").size();
    }
    mqtt::test::Message awaitRequest(std::string const& name, std::size_t count = 1) const {
        return awaitMessage("/" + name + "?\?/", count);
    }
    void bind() {
        auto const before = recorder.count();
        ASSERT_EQ(proxy->bindSync(server.id, LONG_TIMEOUT_S), BinderError::SUCCESS);
        ASSERT_EQ(recorder.count(), before + 1);
    }

    /// Neither bound nor binding.
    void expectUnbound() {
        EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), BinderError::NOT_BOUND);
        EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), BinderError::NOT_BOUND);
        EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    }

    void expectBound() {
        EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), BinderError::ALREADY_BOUND);
        EXPECT_EQ(proxy->bindSync(server.id, LONG_TIMEOUT_S), BinderError::ALREADY_BOUND);
        EXPECT_TRUE(proxy->isTimeBaseSynchronized());
    }

    /// Whether this is the server's time, within two minutes.
    static bool isTimeOf(BindingServer const& server, std::uint32_t time) {
        auto const reference = server.timeBase();
        return time + 120 >= reference && time <= reference + 120;
    }

    BindingRecorder recorder;
    std::unique_ptr<Proxy> proxy = makeProxy();
    BindingServer server{broker};
};

/// Makes the operations for derived classes public.
class DerivedProxy : public mqtt::BinderMqttProxy {
public:
    DerivedProxy(mqtt::MqttClient& client, zym::common::Uuid const& self,
                 zym::common::BinderProxy::Listener* listener)
        : zym::common::BinderProxy(self, listener),
          BinderMqttProxy(client, BASE_TOPIC, SUB_PATH, self, BOUND_TOPIC, listener) {}
    ~DerivedProxy() override { release(); }

    using BinderMqttProxy::endBinding;
    using BinderMqttProxy::serverUuid;

    /// Whether a known time ends the binding, as in the base class.
    void setEndsBinding(bool ends) { endsBinding_ = ends; }
    bool waitForSynchronizations(int count) const {
        return synchronizations_.waitFor([&](int times) { return times >= count; });
    }

protected:
    void onTimeSynchronized() override {
        bool const ends = endsBinding_;
        synchronizations_.change([](int& times) { ++times; });
        if (ends) {
            BinderMqttProxy::onTimeSynchronized();
        }
    }

private:
    std::atomic<bool> endsBinding_{true};
    mqtt::test::Watched<int> synchronizations_;
};
