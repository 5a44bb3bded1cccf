#include "chaos/workload.hpp"

#include "mqtt/test/raw_peer.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <atomic>
#include <deque>

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

using Identification = mqtt::MqttData<conv::Identification>;

constexpr char const* DEVICE_TOPIC = "chaos/device";
constexpr std::size_t ENTITIES = 5;
std::string const CLEANED_TOPIC = "chaos/cleaned/";

std::string nameOf(std::size_t entity) {
    return "entity" + std::to_string(entity);
}

/// Retains a list of links and their entities, again with every connection.
class DiscoverableDevice final : private mqtt::MqttClient::Listener {
public:
    explicit DiscoverableDevice(TestBed& testBed) : client_(testBed.newClient({true})) {
        for (std::size_t i = 0; i < ENTITIES; ++i) {
            auto const topic = std::string(DEVICE_TOPIC) + "/" + nameOf(i);
            links_.value.push_back({topic});
            entities_.emplace_back(*client_, topic).value.name = nameOf(i);
        }
        client_->registerListener(this);
        publish();
    }

private:
    void publish() {
        for (auto& entity : entities_) {
            entity.publish();
        }
        links_.publish();
    }
    void onComStateChanged(conv::ComState state) override {
        if (state == conv::ComState::CONNECTED) {
            publish();
        }
    }

    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::MqttDataCollection<mqtt::Link> links_{*client_, DEVICE_TOPIC};
    std::deque<Identification> entities_;
};

class DiscoveryWorker final : public Worker {
public:
    explicit DiscoveryWorker(TestBed& on)
        : Worker(on, "discovery", 100), client_(testBed.newClient()) {}

private:
    bool step() override {
        bool const complete = discoverer_.discoverSync(2, true);
        count(complete ? "discoveries made" : "discoveries that timed out");
        auto const entities = discoverer_.entities();
        check(!complete || entities.size() == ENTITIES, "complete, but not all");
        for (std::size_t i = 0; complete && i < entities.size(); ++i) {
            check(entities[i].name == nameOf(i), "complete, but wrong");
        }
        return complete;
    }

    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::ServiceDiscovererMqtt discoverer_{*client_, DEVICE_TOPIC};
};

/// Retains messages and removes them, each time with a new cleaner.
class CleaningWorker final : public Worker, private mqtt::TopicCleaner::Listener {
public:
    explicit CleaningWorker(TestBed& on)
        : Worker(on, "cleaning", 100),
          cleanersPort_(testBed.newProxy()),
          client_(testBed.newClient({true})) {}

    /// Publishes nothing.
    void verify() override {
        auto const isClean = [this] {
            clean();
            return mqtt::test::allRetained(testBed.broker, CLEANED_TOPIC + "#").empty();
        };
        check(mqtt::test::eventually(isClean, END_DEADLINE), "cannot clean any more");
    }

private:
    bool step() override {
        for (int n = random.between(1, 20); n > 0; --n) {
            client_->publish(CLEANED_TOPIC + std::to_string(n), "old", 1, true);
        }
        clean();
        return true;
    }

    void clean() {
        topicsCleaned_ = 0;
        allCleaned_ = 0;
        bool done = false;
        {
            mqtt::TopicCleaner cleaner(this, mqtt::test::uniqueId(), testBed.broker.host(),
                                       cleanersPort_, testBed.broker.connectionOptions());
            cleaner.clean(CLEANED_TOPIC + "#", std::chrono::seconds(1));
            // Some cleaners are destroyed while they work.
            if (random.percent(80)) {
                done = cleaner.waitAllTasks(END_DEADLINE);
                check(done, "cleaning never ended");
            }
        }
        count(done ? "cleanings made" : "cleaners destroyed while they worked");
        // After the end of the cleaner, which makes two calls one after the other.
        check(topicsCleaned_ <= 1 && allCleaned_ <= 1
                  && (!done || (topicsCleaned_ == 1 && allCleaned_ == 1)),
              "not told once that all is cleaned");
    }

    void onTopicCleaned(mqtt::Topic const& /*topic*/) override { ++topicsCleaned_; }
    void onAllTopicsCleaned() override { ++allCleaned_; }

    int const cleanersPort_;
    std::atomic<int> topicsCleaned_{0};
    std::atomic<int> allCleaned_{0};
    std::unique_ptr<mqtt::MqttClient> client_;
};

} // namespace

void addServiceWorkers(TestBed& testBed, Services& services) {
    services.servers.push_back(std::make_shared<BindingServer>(testBed));
    services.servers.push_back(std::make_shared<DiscoverableDevice>(testBed));
    for (auto const* const name : {"binding", "other binding"}) {
        services.workers.push_back(std::make_unique<BindingWorker>(testBed, name));
    }
    services.workers.push_back(std::make_unique<DiscoveryWorker>(testBed));
    services.workers.push_back(std::make_unique<CleaningWorker>(testBed));
}

} // namespace chaos
