#include "chaos/workers.hpp"

#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

namespace chaos {

namespace {

using zym::common::Uuid;
using Error = zym::common::Binder::Error;

Uuid const SERVER_ID{4711};
constexpr char const* SERVER_TOPIC = "chaos/server";

std::unique_ptr<mqtt::MqttClient> makeClient(TestBed& testBed, Uuid const& id) {
    return support::testClient(testBed.broker.host(), testBed.newProxy(), {false, true, id});
}

std::string codeOf(Error error) {
    return " ended with code " + std::to_string(static_cast<int>(error));
}

class BindingServer final : public Server, private mqtt::RequestReplyServer::Listener {
public:
    explicit BindingServer(TestBed& testBed) : client_(makeClient(testBed, support::uniqueId())) {
        bind_.subscribe(this, SERVER_ID, std::make_shared<mqtt::BindRequestData>());
        unbind_.subscribe(this, SERVER_ID, mqtt::NO_DATA);
    }
    ~BindingServer() override {
        bind_.release();
        unbind_.release();
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

class BindingWorker final : public Worker, public zym::common::BinderProxy::Listener {
public:
    BindingWorker(TestBed& on, std::string const& name)
        : Worker(on, name),
          id_(support::uniqueId()),
          client_(makeClient(testBed, id_)),
          proxy_(std::make_unique<mqtt::BinderMqttProxy>(*client_, SERVER_TOPIC, "", id_,
                                                         "chaos/bound", this)) {}
    ~BindingWorker() override {
        end();
        proxy_.reset();
    }

    void verify() override {
        check(support::eventually([this] { return bindAndUnbind(); }, END_DEADLINE),
              "cannot bind any more");
    }

private:
    struct Calls {
        int bound = 0;
        int unbound = 0;
    };

    void step() override {
        bindAndUnbind();
        wait(0, 50);
    }

    /// @return whether it was bound by the call that waits
    bool bindAndUnbind() {
        count("bindings tried");
        auto const before = calls_.copy();
        bool bound = false;
        if (random.percent(60)) {
            auto const error = proxy_->bindSync(SERVER_ID, 1);
            bound = error == Error::SUCCESS;
            check(bound || error == Error::TIMEOUT || error == Error::NOT_SYNCHRONIZED,
                  "bindSync" + codeOf(error));
        } else {
            bindWithListener();
        }
        bool const unbound = unbind();
        auto const after = calls_.copy();
        check(after.bound <= before.bound + 1, "told twice of the end of a binding");
        check(!unbound || after.unbound == before.unbound + 1, "not told once of an unbinding");
        count("bindings made", bound ? 1 : 0);
        return bound;
    }

    /// Half of these bindings are cancelled soon.
    void bindWithListener() {
        auto const before = calls_.copy().bound;
        auto const error = proxy_->bind(SERVER_ID, 1);
        check(error == Error::SUCCESS, "bind" + codeOf(error));
        if (error == Error::SUCCESS && random.percent(50)) {
            wait(0, 20);
        } else if (error == Error::SUCCESS) {
            check(waitFor([&](Calls const& calls) { return calls.bound > before; }),
                  "a binding never ended");
        }
    }

    /// @return whether there was anything to unbind
    bool unbind() {
        auto const before = calls_.copy().unbound;
        auto const error = random.percent(50) ? proxy_->unbindSync(1) : proxy_->unbind(1);
        if (error == Error::NOT_BOUND) {
            return false;
        }
        check(error == Error::SUCCESS, "unbind" + codeOf(error));
        check(error != Error::SUCCESS
                  || waitFor([&](Calls const& calls) { return calls.unbound > before; }),
              "an unbinding never ended");
        return true;
    }

    template <class Condition>
    bool waitFor(Condition const& condition) const {
        return calls_.waitFor(condition, END_DEADLINE);
    }

    void onBound(Error /*error*/) override {
        calls_.change([](Calls& calls) { ++calls.bound; });
    }
    void onUnbound(Error /*error*/) override {
        calls_.change([](Calls& calls) { ++calls.unbound; });
    }

    Uuid const id_;
    support::Watched<Calls> calls_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::BinderMqttProxy> proxy_;
};

/// Reads the server's time, each time from the beginning.
class TimeReader final : public Worker {
public:
    explicit TimeReader(TestBed& on)
        : Worker(on, "time reader"),
          id_(support::uniqueId()),
          client_(makeClient(testBed, id_)),
          proxy_(std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(*client_, SERVER_TOPIC, id_,
                                                                       nullptr)) {}
    ~TimeReader() override {
        end();
        proxy_.reset();
    }

    void verify() override {
        check(support::eventually([this] { return read(); }, END_DEADLINE),
              "cannot read the time any more");
    }

private:
    void step() override {
        read();
        wait(0, 100);
    }

    bool read() {
        bool const known = proxy_->synchronize(SERVER_ID, 3);
        count(known ? "time readings made" : "time readings that timed out");
        check(known == proxy_->isSynchronized(), "contradicts itself about the time");
        proxy_->stop();
        return known;
    }

    Uuid const id_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttProxy> proxy_;
};

} // namespace

std::unique_ptr<Server> makeBindingServer(TestBed& testBed) {
    return std::make_unique<BindingServer>(testBed);
}

std::unique_ptr<Worker> makeBindingWorker(TestBed& testBed, std::string const& name) {
    return std::make_unique<BindingWorker>(testBed, name);
}

std::unique_ptr<Worker> makeTimeReader(TestBed& testBed) {
    return std::make_unique<TimeReader>(testBed);
}

} // namespace chaos
