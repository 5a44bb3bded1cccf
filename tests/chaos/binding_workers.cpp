#include "chaos/workload.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/service.hpp>
#include <mqtt/time_base.hpp>

namespace chaos {

namespace {

using zym::common::Uuid;
using Error = zym::common::Binder::Error;

Uuid const SERVER_ID{4711};
constexpr char const* SERVER_TOPIC = "chaos/server";

struct BindRequest {
    std::string topic;
};
ZYM_MQTT_FIELDS(BindRequest, topic)

mqtt::Service<BindRequest, mqtt::Nothing> const BIND{SERVER_TOPIC, "bind"};
mqtt::Service<mqtt::Nothing, mqtt::Nothing> const UNBIND{SERVER_TOPIC, "unbind"};

/// Grants all bindings, and has a time base.
class BindingServer {
public:
    explicit BindingServer(TestBed& testBed) : client_(testBed.newClient()) {}

private:
    static constexpr auto GRANT = [](auto const& /*request*/) { return mqtt::Nothing(); };

    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::ServerId const id_{SERVER_ID};
    mqtt::Server<BindRequest, mqtt::Nothing> bind_{*client_, BIND, id_, GRANT};
    mqtt::Server<mqtt::Nothing, mqtt::Nothing> unbind_{*client_, UNBIND, id_, GRANT};
    mqtt::SynchronizedTimeBaseMqttAdaptor timeBase_{*client_, SERVER_TOPIC, SERVER_ID};
};

class BindingWorker final : public Worker, private zym::common::BinderProxy::Listener {
public:
    BindingWorker(TestBed& on, std::string const& nameOfIt)
        : Worker(on, nameOfIt, 50), client_(testBed.newClient({false, true, id_})) {}

private:
    /// @return whether it was bound by the call that waits
    bool step() override {
        count("bindings tried");
        int const before = bound_.copy();
        bool const bound = random.percent(60) ? bindAndWait() : bindWithListener();
        unbind();
        check(bound_.copy() <= before + 1, "told twice of the end of a binding");
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
        int const before = bound_.copy();
        check(binder_.bind(SERVER_ID, 1) == Error::SUCCESS, "a binding does not begin");
        if (random.percent(50)) {
            wait(0, 20);
        } else {
            check(bound_.waitFor([&](int calls) { return calls > before; }, END_DEADLINE),
                  "a binding never ended");
        }
        return false;
    }

    void unbind() {
        int const before = unbound_.copy();
        auto const error = random.percent(50) ? binder_.unbindSync(1) : binder_.unbind(1);
        if (error != Error::NOT_BOUND) {
            check(error == Error::SUCCESS, "an unbinding fails");
            check(unbound_.waitFor([&](int calls) { return calls > before; }, END_DEADLINE),
                  "an unbinding never ended");
            check(unbound_.copy() == before + 1, "told twice of the end of an unbinding");
        }
    }

    void onBound(Error /*error*/) override {
        bound_.change([](int& calls) { ++calls; });
    }
    void onUnbound(Error /*error*/) override {
        unbound_.change([](int& calls) { ++calls; });
    }

    Uuid const id_ = mqtt::test::uniqueId();
    mqtt::test::Watched<int> bound_; ///< calls of the listener
    mqtt::test::Watched<int> unbound_;
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
