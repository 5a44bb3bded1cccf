// The time base, the binder, the cleaner and the discoverer.

#include "interleavings/stage.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <memory>
#include <thread>

using namespace interleavings;
using std::chrono::milliseconds;
using std::chrono::seconds;
using BinderError = zym::common::Binder::Error;

namespace {

struct TimeListener final : zym::common::SynchronizedTimeBaseProxy::Listener {
    explicit TimeListener(std::function<void()> hook = {}) : ear(std::move(hook)) {}
    void onTimeSynchronized() override { ear.hear(); }
    Ear ear;
};

struct OneTimeBase : ConnectedClient {
    void expectUsable() const {
        proxy->stop();
        Scene::expect(proxy->synchronize(SERVER, 5), "the time base is not to be started again");
    }

    EchoServer server{broker};
    TimeListener listener;
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttProxy> proxy =
        std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(client, "svc", ME, &listener);
};

struct BindingListener final : zym::common::BinderProxy::Listener {
    explicit BindingListener(std::function<void()> hook = {}) : ear(std::move(hook)) {
        bound.reserve(10); // it has memory when the library has none
        unbound.reserve(10);
    }
    void onBound(BinderError error) override {
        bound.push_back(error);
        ear.hear();
    }
    void onUnbound(BinderError error) override {
        unbound.push_back(error);
        ear.hear();
    }
    std::vector<BinderError> bound;
    std::vector<BinderError> unbound;
    Ear ear;
};

struct OneBinder : ConnectedClient {
    explicit OneBinder(std::function<void()> hook = {}) : listener(std::move(hook)) {}

    void expectUnbound() const {
        Scene::expect(!proxy->isTimeBaseSynchronized(), "the time base runs on after the unbind");
        Scene::expect(proxy->unbindSync(5) == BinderError::NOT_BOUND, "bound after the unbind");
    }
    void expectUnboundAtTheServer() const {
        expectUnbound();
        auto const& served = server.served();
        auto const last = std::find_if(served.rbegin(), served.rend(),
                                       [](auto const& name) { return name != "timeSync"; });
        Scene::expect(last == served.rend() || *last == "unbind",
                      "a bind reaches the server after the unbind");
    }
    /// Whatever came before.
    void expectUsable() const {
        proxy->unbindSync(5);
        expectUnbound();
        Scene::expect(proxy->bindSync(SERVER, 5) == BinderError::SUCCESS, "no binding any more");
        Scene::expect(proxy->unbindSync(5) == BinderError::SUCCESS, "no unbinding any more");
        expectUnboundAtTheServer();
    }

    EchoServer server{broker};
    BindingListener listener;
    std::unique_ptr<mqtt::BinderMqttProxy> proxy =
        std::make_unique<mqtt::BinderMqttProxy>(client, "svc", "", ME, "me", &listener);
};

struct CleaningListener final : mqtt::TopicCleaner::Listener {
    explicit CleaningListener(std::function<void()> hook = {}) : ear(std::move(hook)) {}
    void onTopicCleaned(mqtt::Topic const&) override {
        ++topics;
        ear.hear();
    }
    void onAllTopicsCleaned() override {
        ++all;
        ear.hear();
    }
    int topics = 0;
    int all = 0;
    Ear ear;
};

struct OneCleaner {
    explicit OneCleaner(std::function<void()> hook = {}) : listener(std::move(hook)) {
        broker.publish("old/1", "x", true);
        broker.publish("old/2", "x", true);
    }

    SmallBroker broker;
    CleaningListener listener;
    std::unique_ptr<mqtt::TopicCleaner> cleaner =
        std::make_unique<mqtt::TopicCleaner>(&listener, ME, "host", 1883);
};

/// A list of two, and what each of them is.
void publishEntities(SmallBroker& broker) {
    broker.publish("entities",
                   R"({"members@count": 2, "members": [{"@id": "one"}, {"@id": "two"}]})", true);
    for (auto const* const entity : {"one", "two"}) {
        broker.publish(std::string(entity) + "/"
                           + mqtt::MqttData<conv::Identification>::TOPIC_SUFFIX,
                       R"({"name": "n"})", true);
    }
}

} // namespace

SCENARIO(TimeBaseStopAndStart, PAUSES) {
    OneTimeBase one;
    {
        Scene::Exploration const here;
        one.proxy->startSync(SERVER);
        scene.pause();
        one.proxy->stop();
        scene.pause();
        one.proxy->startSync(SERVER);
        if (scene.mistaken()) {
            std::thread([&] { one.proxy->stop(); }).join();
        }
    }
    Scene::pass(LONG);
    Scene::expect(one.proxy->isSynchronized(), "the time base stands still");
    Scene::expect(one.listener.ear.count() == 1 || one.listener.ear.count() == 2,
                  "the listener is not told once");
    one.expectUsable();
}

SCENARIO(TimeBaseInTwoHands, PAUSES | DEADLINES) {
    OneTimeBase one;
    bool started = false;
    bool synchronized = false;
    {
        Scene::Exploration const here;
        std::thread other([&] { synchronized = one.proxy->synchronize(SERVER, 5); });
        started = one.proxy->startSync(SERVER);
        scene.pause();
        one.proxy->forceSync();
        if (scene.mistaken()) {
            one.proxy->stop();
        }
        other.join();
    }
    Scene::pass(seconds(40));
    // Who waits in vain stops what it has started.
    Scene::expect(one.proxy->isSynchronized() || !(started || synchronized),
                  "the time base stands still");
    Scene::expect(!synchronized || one.listener.ear.count() <= 1, "the listener is not told once");
    one.expectUsable();
}

SCENARIO(ThePeriodicExchangeMeetsStop, PAUSES | DEADLINES) {
    OneTimeBase one;
    one.proxy->synchronize(SERVER, 5);
    Scene::pass(milliseconds(29'900));
    {
        Scene::Exploration const here;
        Scene::pass(milliseconds(99));
        scene.pause();
        one.proxy->stop();
        if (!scene.mistaken()) {
            one.proxy->startSync(SERVER);
        }
    }
    Scene::pass(LONG);
    Scene::expect(one.proxy->isSynchronized(), "the time base stands still");
    one.expectUsable();
}

SCENARIO(TheEndOfATimeBaseMeetsItsCallback, DEADLINES) {
    OneTimeBase one;
    one.server.beSilent();
    bool waits = false;
    {
        Scene::Exploration const here;
        waits = Scene::maybe();
    }
    std::thread waiter(
        [&, waits] { waits ? one.proxy->synchronize(SERVER, 5) : one.proxy->startSync(SERVER); });
    Scene::pass(milliseconds(1));
    {
        Scene::Exploration const here;
        one.server.speak();
        if (scene.mistaken()) {
            one.listener.ear.close();
        }
        Scene::stop();
        one.proxy.reset();
        one.listener.ear.close();
    }
    waiter.join();
    Scene::pass(LONG);
    one.expectNothingLeft();
}

SCENARIO(TimeBaseWithoutAThread, NO_THREAD) {
    OneTimeBase one;
    bool started = false;
    {
        Scene::Exploration const here;
        started = attempt([&] { one.proxy->startSync(SERVER); }) || scene.mistaken();
        Scene::pass(seconds(1));
    }
    Scene::pass(seconds(70));
    Scene::expect(one.proxy->isSynchronized() == started, "the time base stands still");
    Scene::expect(one.listener.ear.count() == (started ? 1 : 0), "the listener is not told once");
    one.expectUsable();
}

SCENARIO(TimeBaseWithoutMemory, NO_MEMORY) {
    OneTimeBase one;
    bool started = false;
    {
        Scene::Exploration const here;
        Scene::Shortage const shortage;
        started = attempt([&] { one.proxy->startSync(SERVER); }) || scene.mistaken();
        Scene::pass(seconds(31));
    }
    Scene::pass(seconds(70));
    Scene::expect(one.proxy->isSynchronized() == started, "the time base stands still");
    Scene::expect(one.listener.ear.count() == (started ? 1 : 0), "the listener is not told once");
    one.expectUsable();
}

SCENARIO(ATimeListenerThrows, THREADS_ONLY) {
    OneTimeBase one;
    one.listener.ear = Ear(&throwSometimes);
    {
        Scene::Exploration const here;
        one.proxy->startSync(SERVER);
        Scene::pass(milliseconds(1));
        one.proxy->stop();
        if (!scene.mistaken()) {
            one.proxy->startSync(SERVER);
        }
    }
    Scene::pass(LONG);
    Scene::expect(one.proxy->isSynchronized(), "the time base stands still");
    one.expectUsable();
}

SCENARIO(BindMeetsUnbind, PAUSES) {
    OneBinder one;
    BinderError unbound{};
    {
        Scene::Exploration const here;
        std::thread other([&] {
            scene.pause();
            unbound = one.proxy->unbindSync(5);
            if (scene.mistaken()) {
                one.proxy->bind(SERVER, 5);
            }
        });
        one.proxy->bind(SERVER, 5);
        other.join();
    }
    Scene::pass(LONG);
    Scene::expect(one.listener.bound.size() <= 1, "the end of a binding is not told once");
    if (unbound == BinderError::SUCCESS) {
        one.expectUnboundAtTheServer();
    } else {
        Scene::expect(one.listener.bound.size() == 1, "the end of a binding is not told once");
    }
    one.expectUsable();
}

SCENARIO(BindingFollowsAnUnbindingAtOnce, PAUSES | DEADLINES) {
    OneBinder one;
    zym::common::Uuid const nobody(77);
    BinderError unbound{};
    {
        Scene::Exploration const here;
        bool const zero = Scene::maybe();
        bool const async = Scene::maybe();
        std::thread other([&] {
            if (async) {
                one.proxy->bind(SERVER, 5);
            } else {
                one.proxy->bindSync(SERVER, 5);
            }
        });
        scene.pause();
        unbound = one.proxy->unbindSync(zero ? 0 : 5);
        if (unbound == BinderError::SUCCESS) {
            one.server.beSilent();
            Scene::expect(one.proxy->bind(nobody, conv::SecondsDuration::NO_TIMEOUT)
                              == BinderError::SUCCESS,
                          "no next binding");
            if (scene.mistaken()) {
                one.proxy->unbindSync(0);
            }
        }
        other.join();
        Scene::pass(milliseconds(50));
    }
    Scene::pass(seconds(1));
    if (unbound == BinderError::SUCCESS) {
        Scene::expect(one.proxy->unbindSync(0) == BinderError::SUCCESS,
                      "the next binding has ended");
    }
    one.server.speak();
    one.expectUsable();
}

SCENARIO(BindingThatTimesOutMeetsUnbindAndBind, PAUSES | DEADLINES) {
    OneBinder one;
    zym::common::Uuid const nobody(77);
    one.server.beSilent();
    BinderError unbound{};
    {
        Scene::Exploration const here;
        std::thread other([&] { one.proxy->bindSync(SERVER, 1); });
        Scene::pass(seconds(1));
        unbound = one.proxy->unbindSync(0);
        if (unbound == BinderError::SUCCESS) {
            one.server.beSilent();
            Scene::expect(one.proxy->bind(nobody, conv::SecondsDuration::NO_TIMEOUT)
                              == BinderError::SUCCESS,
                          "no next binding");
            if (scene.mistaken()) {
                one.proxy->unbindSync(0);
            }
        }
        other.join();
        Scene::pass(milliseconds(50));
    }
    if (unbound == BinderError::SUCCESS) {
        Scene::expect(one.proxy->unbindSync(0) == BinderError::SUCCESS,
                      "the next binding has ended");
    }
    one.server.speak();
    one.expectUsable();
}

SCENARIO(BindSyncMeetsUnbindSync, PAUSES) {
    OneBinder one;
    BinderError bound{};
    BinderError unbound{};
    {
        Scene::Exploration const here;
        std::thread other([&] {
            scene.pause();
            unbound = one.proxy->unbindSync(5);
        });
        bound = one.proxy->bindSync(SERVER, 5);
        if (scene.mistaken()) {
            one.proxy->bindSync(SERVER, 5);
        }
        other.join();
    }
    Scene::pass(LONG);
    if (unbound == BinderError::SUCCESS) {
        one.expectUnboundAtTheServer();
    } else {
        Scene::expect(bound == BinderError::SUCCESS, "neither bound nor unbound");
    }
    one.expectUsable();
}

SCENARIO(UnbindMeetsTheDeadline, PAUSES | DEADLINES) {
    OneBinder one;
    one.proxy->bindSync(SERVER, 5);
    one.server.beSilent();
    {
        Scene::Exploration const here;
        one.proxy->unbind(1);
        scene.pause();
        std::thread other([&] { one.proxy->unbindSync(1); });
        Scene::pass(milliseconds(999));
        one.server.speak();
        if (scene.mistaken()) {
            one.proxy->terminate();
        }
        other.join();
    }
    Scene::pass(LONG);
    Scene::expect(one.listener.unbound.size() + one.listener.bound.size() <= 2,
                  "the end of an unbinding is not told once");
    one.expectUsable();
}

SCENARIO(TheEndOfABinderMeetsItsCallbacks, DEADLINES) {
    OneBinder one;
    one.server.beSilent();
    one.proxy->bind(SERVER, 1);
    bool unbinds = false;
    {
        Scene::Exploration const here;
        unbinds = Scene::maybe();
    }
    std::thread waiter([&, unbinds] {
        if (unbinds) {
            one.proxy->unbindSync(1);
        }
    });
    Scene::pass(milliseconds(1));
    {
        Scene::Exploration const here;
        one.server.speak();
        if (scene.mistaken()) {
            one.listener.ear.close();
        }
        one.proxy.reset();
        one.listener.ear.close();
    }
    waiter.join();
    Scene::pass(LONG);
    one.expectNothingLeft();
}

SCENARIO(BindingsWithoutAThread, NO_THREAD) {
    OneBinder one;
    {
        Scene::Exploration const here;
        attempt([&] { one.proxy->bind(SERVER, 5); });
        Scene::pass(seconds(1));
        attempt([&] { one.proxy->unbind(5); });
        if (scene.mistaken()) {
            one.proxy->terminate();
        }
        Scene::pass(seconds(1));
    }
    Scene::pass(seconds(70));
    one.expectUsable();
}

SCENARIO(BindingsWithoutMemory, NO_MEMORY) {
    OneBinder one;
    {
        Scene::Exploration const here;
        Scene::Shortage const shortage;
        attempt([&] { one.proxy->bind(SERVER, 5); });
        Scene::pass(milliseconds(1));
        attempt([&] { one.proxy->unbind(5); });
        if (scene.mistaken()) {
            one.proxy->terminate();
        }
        Scene::pass(milliseconds(1));
    }
    Scene::pass(seconds(70));
    one.expectUsable();
}

SCENARIO(ABindingListenerThrows, THREADS_ONLY) {
    OneBinder one(&throwSometimes);
    {
        Scene::Exploration const here;
        one.proxy->bind(SERVER, 5);
        one.proxy->unbind(5);
        if (scene.mistaken()) {
            throwSometimes();
        }
        Scene::pass(seconds(1));
    }
    Scene::pass(LONG);
    one.expectUsable();
}

SCENARIO(CleaningMeetsItsEnd, PAUSES | DEADLINES) {
    OneCleaner one;
    {
        Scene::Exploration const here;
        one.cleaner->clean("old/+", seconds(1));
        scene.pause();
        std::thread other([&] { one.cleaner->clean("new", seconds(1)); });
        std::thread third([cleaner = one.cleaner.get()] { cleaner->waitAllTasks(seconds(3)); });
        Scene::pass(seconds(1));
        if (scene.mistaken()) {
            one.listener.ear.close();
        }
        one.cleaner->terminate();
        one.listener.ear.close();
        other.join();
        third.join();
    }
    Scene::expect(one.listener.all <= 2 && one.listener.topics <= 2, "an end is told twice");
    Scene::expect(one.cleaner->waitAllTasks(seconds(0)), "tasks are left after the end");
    one.cleaner.reset();
    Scene::pass(LONG);
}

SCENARIO(CleaningCompletes, PAUSES) {
    OneCleaner one;
    {
        Scene::Exploration const here;
        one.cleaner->clean("old/+", seconds(1));
        scene.pause();
        std::thread other([&] { one.cleaner->clean("new", seconds(1)); });
        Scene::pass(milliseconds(scene.mistaken() ? 1 : 1000));
        other.join();
    }
    Scene::expect(one.cleaner->waitAllTasks(scene.mistaken() ? seconds(0) : LONG),
                  "tasks are left");
    Scene::expect(one.listener.topics == 2 && one.listener.all >= 1, "an end is not told");
    Scene::expect(one.broker.retained() == 0, "a retained message is left");
    Scene::expect(one.broker.subscriptions() == 0, "a subscription is left over");
}

SCENARIO(CleaningWithoutAThread, NO_THREAD) {
    OneCleaner one;
    {
        Scene::Exploration const here;
        if (!attempt([&] { one.cleaner->clean("old/+", seconds(1)); }) && !scene.mistaken()) {
            one.cleaner->clean("old/+", seconds(1));
        }
    }
    Scene::expect(one.cleaner->waitAllTasks(LONG), "tasks are left");
    Scene::expect(one.listener.topics == 1 && one.listener.all == 1, "an end is not told once");
    Scene::expect(one.broker.retained() == 0, "a retained message is left");
}

SCENARIO(CleaningWithoutMemory, NO_MEMORY) {
    OneCleaner one;
    bool accepted = false;
    {
        Scene::Exploration const here;
        Scene::Shortage const shortage;
        accepted = attempt([&] { one.cleaner->clean("old/+", seconds(1)); }) || scene.mistaken();
        Scene::pass(seconds(3));
    }
    Scene::expect(one.cleaner->waitAllTasks(LONG), "tasks are left");
    Scene::expect(one.listener.topics == (accepted ? 1 : 0), "an end is not told once");
    one.cleaner->clean("new", seconds(1));
    Scene::expect(one.cleaner->waitAllTasks(LONG), "tasks are left");
}

SCENARIO(ACleaningListenerThrows, THREADS_ONLY) {
    OneCleaner one(&throwSometimes);
    {
        Scene::Exploration const here;
        one.cleaner->clean("old/+", seconds(1));
        if (!scene.mistaken()) {
            one.cleaner->clean("new", seconds(1));
        }
        Scene::pass(seconds(3));
    }
    Scene::expect(one.cleaner->waitAllTasks(LONG), "tasks are left");
    Scene::expect(one.listener.topics == 2 && one.listener.all == 1, "an end is not told once");
}

SCENARIO(DiscoveryMeetsItsEnd, DEADLINES) {
    ConnectedClient one;
    auto discoverer = std::make_unique<mqtt::ServiceDiscovererMqtt>(one.client, "entities");
    std::thread waiter([&] { discoverer->discoverSync(5, true); });
    Scene::pass(milliseconds(1));
    {
        Scene::Exploration const here;
        publishEntities(one.broker);
        if (scene.mistaken()) {
            std::thread([&] { discoverer->links(); }).detach();
        }
        discoverer.reset();
    }
    waiter.join();
    Scene::pass(LONG);
    one.expectNothingLeft();
}

SCENARIO(DiscoveryMeetsItsAnswers, PAUSES) {
    ConnectedClient one;
    mqtt::ServiceDiscovererMqtt discoverer(one.client, "entities");
    bool found[2]{};
    {
        Scene::Exploration const here;
        std::thread other([&] { found[0] = discoverer.discoverSync(5, true); });
        publishEntities(one.broker);
        scene.pause();
        publishEntities(one.broker);
        if (scene.mistaken()) {
            discoverer.cleanSubscriptions();
        }
        found[1] = discoverer.discoverSync(5, true);
        other.join();
    }
    Scene::expect(found[0] && found[1] && discoverer.entities().size() == 2,
                  "what is published is not discovered");
    for (auto const& entity : discoverer.entities()) {
        Scene::expect(entity.name == "n", "an answer gets lost");
    }
    Scene::pass(LONG);
    one.expectNothingLeft();
}

SCENARIO(DiscoveryWithoutMemory, NO_MEMORY) {
    ConnectedClient one;
    mqtt::ServiceDiscovererMqtt discoverer(one.client, "entities");
    publishEntities(one.broker);
    {
        Scene::Exploration const here;
        Scene::Shortage const shortage;
        attempt([&] { discoverer.discoverSync(5, true); });
    }
    Scene::expect(discoverer.discoverSync(scene.mistaken() ? 0 : 5, true), "nothing is discovered");
    Scene::expect(discoverer.entities().size() == 2, "not all is discovered");
}
