#include "chaos/workers.hpp"

#include "support/watched.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

namespace chaos {

namespace {

using zym::common::Uuid;
using Error = zym::common::Binder::Error;

Uuid const SERVER_ID{4711};
constexpr char const* SERVER_TOPIC = "chaos/server";

/// Grants all bindings, and has a time base.
class BindingServer final : private mqtt::RequestReplyServer::Listener {
public:
    explicit BindingServer(TestBed& testBed) : client_(testBed.newClient()) {
        bind_.subscribe(this, SERVER_ID, std::make_shared<mqtt::BindRequestData>());
        unbind_.subscribe(this, SERVER_ID, mqtt::NO_DATA);
    }

private:
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
              mqtt::RequestReplyData const& /*requestData*/,
              mqtt::RequestReply::ErrorCode& /*error*/) override {
        return mqtt::NO_DATA;
    }

    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::RequestReplyServer bind_{*client_, SERVER_TOPIC, "", "bind"};
    mqtt::RequestReplyServer unbind_{*client_, SERVER_TOPIC, "", "unbind"};
    mqtt::SynchronizedTimeBaseMqttAdaptor timeBase_{*client_, SERVER_TOPIC, SERVER_ID};
};

class BindingWorker final : public Worker, private zym::common::BinderProxy::Listener {
public:
    BindingWorker(TestBed& on, std::string const& name)
        : Worker(on, name, 50), client_(testBed.newClient({false, true, id_})) {}

private:
    struct Calls {
        int bound = 0;
        int unbound = 0;
    };

    /// @return whether it was bound by the call that waits
    bool step() override {
        count("bindings tried");
        auto const before = calls_.copy();
        bool const bound = random.percent(60) ? bindAndWait() : bindWithListener();
        bool const unbound = unbind();
        auto const after = calls_.copy();
        check(after.bound <= before.bound + 1, "told twice of the end of a binding");
        check(!unbound || after.unbound == before.unbound + 1, "not told once of an unbinding");
        count("bindings made", bound ? 1 : 0);
        return bound;
    }

    bool bindAndWait() {
        auto const error = binder_.bindSync(SERVER_ID, 1);
        bool const bound = error == Error::SUCCESS;
        check(bound || error == Error::TIMEOUT || error == Error::NOT_SYNCHRONIZED,
              "bindSync ended with code " + std::to_string(static_cast<int>(error)));
        return bound;
    }

    /// Half of these bindings are cancelled soon.
    bool bindWithListener() {
        auto const before = calls_.copy().bound;
        check(binder_.bind(SERVER_ID, 1) == Error::SUCCESS, "a binding does not begin");
        if (random.percent(50)) {
            wait(0, 20);
        } else {
            expectCall([&](Calls const& calls) { return calls.bound > before; }, "a binding");
        }
        return false;
    }

    /// @return whether there was anything to unbind
    bool unbind() {
        auto const before = calls_.copy().unbound;
        auto const error = random.percent(50) ? binder_.unbindSync(1) : binder_.unbind(1);
        if (error == Error::NOT_BOUND) {
            return false;
        }
        check(error == Error::SUCCESS, "an unbinding fails");
        expectCall([&](Calls const& calls) { return calls.unbound > before; }, "an unbinding");
        return true;
    }

    template <class Condition>
    void expectCall(Condition const& condition, std::string const& what) {
        check(calls_.waitFor(condition, END_DEADLINE), what + " never ended");
    }

    void onBound(Error /*error*/) override {
        calls_.change([](Calls& calls) { ++calls.bound; });
    }
    void onUnbound(Error /*error*/) override {
        calls_.change([](Calls& calls) { ++calls.unbound; });
    }

    Uuid const id_ = support::uniqueId();
    support::Watched<Calls> calls_;
    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::BinderMqttProxy binder_{*client_, SERVER_TOPIC, "", id_, "chaos/bound", this};
};

} // namespace

void addBindingWorkers(TestBed& testBed, Services& services) {
    services.servers.push_back(std::make_shared<BindingServer>(testBed));
    for (auto const* const name : {"binding", "other binding"}) {
        services.workers.push_back(std::make_unique<BindingWorker>(testBed, name));
    }
}

} // namespace chaos
