// The time base, the binder, the cleaner and the discoverer.

#include "interleavings/fixtures.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <algorithm>
#include <memory>
#include <thread>

namespace interleavings {

using std::chrono::milliseconds;
using std::chrono::seconds;
using BinderError = zym::common::Binder::Error;

namespace {

struct TimeListener final : zym::common::SynchronizedTimeBaseProxy::Listener, CallbackCheck {
    void onTimeSynchronized() override { onCallback(); }
};

struct TimeBaseFixture : ClientOfEchoServer {
    void expectSynchronizedAndUsable(bool synchronized = true) const {
        expect(proxy->isSynchronized() == synchronized, "the time base does not run");
        proxy->stop();
        expect(proxy->synchronize(SERVER, 5), "the time base cannot be started again");
    }

    TimeListener listener;
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttProxy> proxy =
        std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(client, "svc", CLIENT, &listener);
};

SCENARIO(TimeBaseStopAndStart, TimeBaseFixture, THREADS_ONLY) {
    listener.setAction(&maybeThrow);
    explore([&] {
        proxy->startSync(SERVER);
        maybePause();
        proxy->stop();
        maybePause();
        proxy->startSync(SERVER);
        ifMistaken([&] { proxy->stop(); });
    });
    expect(listener.count() == 1 || listener.count() == 2, "the listener is not called once");
    expectSynchronizedAndUsable();
}

SCENARIO(TimeBaseInTwoHands, TimeBaseFixture, DEADLINES) {
    bool started = false;
    bool synchronized = false;
    explore([&] {
        std::thread other([&] { synchronized = proxy->synchronize(SERVER, 5); });
        started = proxy->startSync(SERVER);
        maybePause();
        proxy->forceSync();
        ifMistaken([&] { proxy->stop(); });
        other.join();
    });
    expect(!synchronized || listener.count() <= 1, "the listener is not called once");
    // A `synchronize` that times out stops what it has started.
    expectSynchronizedAndUsable(proxy->isSynchronized() || started || synchronized);
}

SCENARIO(ThePeriodicExchangeMeetsStop, TimeBaseFixture, DEADLINES) {
    proxy->synchronize(SERVER, 5);
    pass(milliseconds(29'900));
    explore([&] {
        pass(milliseconds(99));
        maybePause();
        proxy->stop();
        unlessMistaken([&] { proxy->startSync(SERVER); });
    });
    expectSynchronizedAndUsable();
}

SCENARIO(TheEndOfATimeBaseMeetsItsCallback, TimeBaseFixture, DEADLINES) {
    bool waits = false;
    explore([&] { waits = maybe(); });
    endDuringReplies(proxy, listener,
                     [&] { waits ? proxy->synchronize(SERVER, 5) : proxy->startSync(SERVER); });
}

SCENARIO(TimeBaseWithoutResources, TimeBaseFixture, RESOURCES) {
    bool started = false;
    explore([&] {
        MemoryMayFail const here;
        started = attempt([&] { proxy->startSync(SERVER); }) || makesMistake();
        pass(seconds(1));
        // For lack of memory a sample may be lost. The next exchange is 30 seconds later.
        expect(MemoryMayFail::hasFailed || listener.count() == (started ? 1 : 0),
               "the listener is not called in time");
        pass(seconds(30));
    });
    expect(listener.count() == (started ? 1 : 0), "the listener is not called once");
    expectSynchronizedAndUsable(started);
}

struct BindingListener final : zym::common::BinderProxy::Listener, CallbackCheck {
    void onBound(BinderError) override {
        ++bound;
        onCallback();
    }
    void onUnbound(BinderError) override { onCallback(); }
    int bound = 0;
};

struct BinderFixture : ClientOfEchoServer {
    void expectUnbound() const {
        expect(!proxy->isTimeBaseSynchronized(), "the time base runs after the unbind");
        expect(proxy->unbindSync(5) == BinderError::NOT_BOUND, "bound after the unbind");
    }
    void expectUnboundAtTheServer() const {
        expectUnbound();
        auto const& names = server.requestNames();
        auto const last = std::find_if(names.rbegin(), names.rend(),
                                       [](auto const& name) { return name != "timeSync"; });
        expect(last == names.rend() || *last == "unbind",
               "a bind reaches the server after the unbind");
    }
    /// In any state before.
    void expectUsable() const {
        proxy->unbindSync(5);
        expectUnbound();
        expect(proxy->bindSync(SERVER, 5) == BinderError::SUCCESS, "the next binding fails");
        expect(proxy->unbindSync(5) == BinderError::SUCCESS, "the next unbinding fails");
        expectUnboundAtTheServer();
    }
    /// After a successful unbinding: begins a binding that gets no answer and has no time-out.
    void bindToSilentServer() {
        server.holdReplies();
        expect(proxy->bind(zym::common::Uuid(77), conv::SecondsDuration::NO_TIMEOUT)
                   == BinderError::SUCCESS,
               "the next binding does not begin");
        ifMistaken([&] { proxy->unbindSync(0); });
    }

    BindingListener listener;
    std::unique_ptr<mqtt::BinderMqttProxy> proxy =
        std::make_unique<mqtt::BinderMqttProxy>(client, "svc", "", CLIENT, "me", &listener);
};

SCENARIO(BindMeetsUnbind, BinderFixture, THREADS_ONLY) {
    bool waits = false;
    BinderError bound{};
    BinderError unbound{};
    listener.setAction(&maybeThrow);
    explore([&] {
        waits = maybe();
        std::thread other([&] {
            maybePause();
            unbound = proxy->unbindSync(5);
            ifMistaken([&] { proxy->bind(SERVER, 5); });
        });
        bound = waits ? proxy->bindSync(SERVER, 5) : proxy->bind(SERVER, 5);
        other.join();
    });
    bool const isUnbound = unbound == BinderError::SUCCESS;
    expect(isUnbound || bound == BinderError::SUCCESS, "neither bound nor unbound");
    expect(waits || listener.bound == 1 || (isUnbound && listener.bound == 0),
           "the listener does not learn the end of a binding once");
    if (isUnbound) {
        expectUnboundAtTheServer();
    }
    expectUsable();
}

SCENARIO(BindingFollowsAnUnbindingAtOnce, BinderFixture, DEADLINES) {
    BinderError unbound{};
    explore([&] {
        bool const timesOut = maybe();
        bool const waits = maybe();
        unsigned const unbindSeconds = maybe() ? 0 : 5;
        unsigned const bindSeconds = timesOut ? 1 : 5;
        if (timesOut) {
            server.holdReplies();
        }
        std::thread other([&] {
            waits ? proxy->bindSync(SERVER, bindSeconds) : proxy->bind(SERVER, bindSeconds);
        });
        timesOut ? pass(seconds(1)) : maybePause();
        unbound = proxy->unbindSync(unbindSeconds);
        if (unbound == BinderError::SUCCESS) {
            bindToSilentServer();
        }
        other.join();
        pass(milliseconds(50));
    });
    expect(unbound != BinderError::SUCCESS || proxy->unbindSync(0) == BinderError::SUCCESS,
           "the next binding has ended");
    server.releaseReplies();
    expectUsable();
}

SCENARIO(UnbindMeetsTheDeadline, BinderFixture, DEADLINES) {
    proxy->bindSync(SERVER, 5);
    server.holdReplies();
    explore([&] {
        proxy->unbind(1);
        maybePause();
        std::thread other([&] { proxy->unbindSync(1); });
        pass(milliseconds(999));
        server.releaseReplies();
        ifMistaken([&] { proxy->terminate(); });
        other.join();
    });
    expect(listener.count() <= 2, "the listener does not learn the end of an unbinding once");
    expectUsable();
}

SCENARIO(TheEndOfABinderMeetsItsCallbacks, BinderFixture, DEADLINES) {
    bool unbinds = false;
    explore([&] { unbinds = maybe(); });
    endDuringReplies(proxy, listener, [&] {
        proxy->bind(SERVER, 1);
        if (unbinds) {
            proxy->unbindSync(1);
        }
    });
}

SCENARIO(BindingsWithoutResources, BinderFixture, RESOURCES) {
    explore([&] {
        MemoryMayFail const here;
        attempt([&] { proxy->bind(SERVER, 5); });
        pass(milliseconds(1));
        attempt([&] { proxy->unbind(5); });
        ifMistaken([&] { proxy->terminate(); });
        pass(milliseconds(1));
    });
    expectUsable();
}

struct CleaningListener final : mqtt::TopicCleaner::Listener, CallbackCheck {
    void onTopicCleaned(mqtt::Topic const&) override {
        ++topics;
        onCallback();
    }
    void onAllTopicsCleaned() override {
        ++allTopics;
        onCallback();
    }
    int topics = 0;
    int allTopics = 0;
};

struct CleanerFixture {
    CleanerFixture() {
        broker.publish("old/1", "x", true);
        broker.publish("old/2", "x", true);
    }
    void cleanOld() const { cleaner->clean("old/+", seconds(1)); }
    void cleanNew() const { cleaner->clean("new", seconds(1)); }

    SmallBroker broker;
    CleaningListener listener;
    std::unique_ptr<mqtt::TopicCleaner> cleaner =
        std::make_unique<mqtt::TopicCleaner>(&listener, CLIENT, "host", 1883);
};

SCENARIO(CleaningMeetsItsEnd, CleanerFixture, DEADLINES) {
    explore([&] {
        cleanOld();
        maybePause();
        std::thread other([&] { cleanNew(); });
        std::thread third([&] { cleaner->waitAllTasks(seconds(3)); });
        pass(seconds(1));
        ifMistaken([&] { listener.close(); });
        cleaner->terminate();
        listener.close();
        other.join();
        third.join();
    });
    expect(listener.allTopics <= 2 && listener.topics <= 2, "the listener learns an end twice");
    expect(cleaner->waitAllTasks(seconds(0)), "tasks are left after the end");
}

SCENARIO(CleaningCompletes, CleanerFixture, THREADS_ONLY) {
    listener.setAction(&maybeThrow);
    bool completes = false;
    explore([&] {
        cleanOld();
        maybePause();
        std::thread other([&] { cleanNew(); });
        pass(makesMistake() ? milliseconds(1) : milliseconds(1000));
        other.join();
        completes = cleaner->waitAllTasks(makesMistake() ? seconds(0) : SETTLING_TIME);
    });
    expect(completes, "tasks are left");
    expect(listener.topics == 2 && listener.allTopics >= 1, "the listener does not learn an end");
    expect(broker.retained() == 0, "a retained message is left");
    expect(broker.subscriptions() == 0, "a subscription is left");
}

SCENARIO(CleaningWithoutResources, CleanerFixture, RESOURCES) {
    bool accepted = false;
    explore([&] {
        MemoryMayFail const here;
        accepted = attempt([&] { cleanOld(); }) || makesMistake();
        pass(seconds(3));
    });
    expect(cleaner->waitAllTasks(SETTLING_TIME), "tasks are left");
    expect(listener.topics == (accepted ? 1 : 0), "the listener does not learn each end once");
    cleanOld();
    cleanNew();
    expect(cleaner->waitAllTasks(SETTLING_TIME), "tasks are left");
    expect(broker.retained() == 0, "a retained message is left");
}

struct DiscovererFixture : ConnectedClient {
    /// Publishes a list of two entities, and what identifies them.
    void publishEntities() {
        broker.publish("entities",
                       R"({"members@count": 2, "members": [{"@id": "one"}, {"@id": "two"}]})",
                       true);
        for (std::string const entity : {"one/", "two/"}) {
            broker.publish(entity + mqtt::MqttData<conv::Identification>::TOPIC_SUFFIX,
                           R"({"name": "n"})", true);
        }
    }
    bool discover(unsigned timeoutSeconds = 5) const {
        return discoverer->discoverSync(timeoutSeconds, true);
    }

    std::unique_ptr<mqtt::ServiceDiscovererMqtt> discoverer =
        std::make_unique<mqtt::ServiceDiscovererMqtt>(client, "entities");
};

SCENARIO(DiscoveryMeetsItsEnd, DiscovererFixture, DEADLINES) {
    std::thread waiter([&] { discover(); });
    pass(milliseconds(1));
    explore([&] {
        publishEntities();
        ifMistaken([&] { std::thread([&] { discoverer->links(); }).detach(); });
        discoverer.reset();
    });
    waiter.join();
    expectNoSubscriptions();
}

SCENARIO(DiscoveryMeetsItsAnswers, DiscovererFixture, THREADS_ONLY) {
    bool found[2]{};
    explore([&] {
        std::thread other([&] { found[0] = discover(); });
        publishEntities();
        maybePause();
        publishEntities();
        ifMistaken([&] { discoverer->cleanSubscriptions(); });
        found[1] = discover();
        other.join();
    });
    auto const entities = discoverer->entities();
    expect(found[0] && found[1] && entities.size() == 2, "published entities are not discovered");
    expect(entities[0].name == "n" && entities[1].name == "n", "an answer is lost");
    expectNoSubscriptions();
}

SCENARIO(DiscoveryWithoutResources, DiscovererFixture, RESOURCES) {
    publishEntities();
    explore([&] {
        MemoryMayFail const here;
        attempt([&] { discover(); });
    });
    expect(discover(makesMistake() ? 0 : 5), "nothing is discovered");
    expect(discoverer->entities().size() == 2, "an entity is not discovered");
}

} // namespace

} // namespace interleavings
