#pragma once

#include "mqtt/mosquittopp.hpp"
#include "requestreply/client_fixture.hpp"
#include "support/manual_timer.hpp"
#include "support/stand_in/stand_in.hpp"

#include <mqtt/binder_proxy.hpp>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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
    void onBound(BinderError error) override { record(bound(error)); }
    void onUnbound(BinderError error) override { record(unbound(error)); }
};

/// The topics of all proxies: of the requests, and the one that is to be bound.
inline mqtt::Topic const BASE_TOPIC{"svc/pump"};
inline mqtt::Topic const SUB_PATH{"desk"};
inline mqtt::Topic const BOUND_TOPIC{"svc/panel"};

/// A proxy with the stand-in for the broker library, which answers in place of a server. Timers
/// expire when the test says so.
class AProxyOnAScript : public testing::Test {
protected:
    using Proxy = mqtt::BinderMqttProxy;
    using Uuid = zym::common::Uuid;
    using Operation = support::StandIn::Operation;
    using Request = support::StandIn::Call;

    static constexpr std::uint32_t SERVER_TIME = 2000000000;

    AProxyOnAScript() {
        manual_timer::reset();
        standIn->setHook(Operation::PUBLISH, [this](Request const& request) {
            for (auto const& [name, code] : answers_.copy()) {
                if (hasName(request, name)) {
                    reply(request, code);
                }
            }
            return std::optional<int>();
        });
    }
    ~AProxyOnAScript() override {
        standIn->setHook(Operation::PUBLISH, {});
        manual_timer::reset();
    }

    std::unique_ptr<Proxy> makeProxy() {
        return std::make_unique<Proxy>(*mqtt, BASE_TOPIC, SUB_PATH, id, BOUND_TOPIC, &recorder);
    }

    /// Requests of this name, "bind", "unbind" or "timeSync", are answered with this code from now
    /// on, as they are with SUCCESS at first.
    void answer(std::string const& name, int code = 1) {
        answers_.change([&](auto& codes) { codes[name] = code; });
    }
    void ignore(std::string const& name) {
        answers_.change([&](auto& codes) { codes.erase(name); });
    }

    std::vector<Request> requests(std::string const& name) const {
        std::vector<Request> found;
        for (auto const& call : standIn->calls(Operation::PUBLISH)) {
            if (hasName(call, name)) {
                found.push_back(call);
            }
        }
        return found;
    }
    void awaitRequest(std::string const& name, std::size_t count = 1) const {
        ASSERT_TRUE(mqtt::test::eventually([&] { return requests(name).size() >= count; }));
    }

    /// Replies with the members of the request and the server's time.
    void reply(Request const& request, int code) const {
        auto payload = request.payload;
        payload.insert(payload.rfind('}'), ", \"$err\": " + std::to_string(code)
                                               + ", \"ref\": " + std::to_string(SERVER_TIME));
        standIn->deliver(replyTopicFor(request.topic), payload);
    }
    /// To the last request of this name; returns when the reply has been handled.
    void reply(std::string const& name, int code = 1) const {
        reply(requests(name).back(), code);
        handleAll();
    }
    void handleAll() const {
        standIn->runInLoop([](auto&) {});
    }

    void bind() { ASSERT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), BinderError::SUCCESS); }

    /// Neither bound nor binding.
    void expectUnbound() const {
        EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), BinderError::NOT_BOUND);
        EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), BinderError::NOT_BOUND);
        EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    }
    void expectBound() const {
        EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), BinderError::ALREADY_BOUND);
        EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), BinderError::ALREADY_BOUND);
        EXPECT_TRUE(proxy->isTimeBaseSynchronized());
        EXPECT_NEAR(proxy->timeBase(), SERVER_TIME, 120);
    }

    using Codes = std::map<std::string, int>;
    mqtt::test::Watched<Codes> answers_{Codes{{"bind", 1}, {"unbind", 1}, {"timeSync", 1}}};
    BindingRecorder recorder;
    Uuid const id = mqtt::test::uniqueId();
    Uuid const server = mqtt::test::uniqueId();
    std::unique_ptr<mqtt::MqttClient> mqtt = mqtt::test::testClient("host", 1883);
    std::shared_ptr<support::StandIn> standIn = support::StandIn::last();
    std::unique_ptr<Proxy> proxy = makeProxy();

private:
    static bool hasName(Request const& request, std::string const& name) {
        return request.topic.find("/" + name + "?\?/") != std::string::npos;
    }
};
