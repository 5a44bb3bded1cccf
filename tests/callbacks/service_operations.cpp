#include "operations.hpp"

using Binding = zym::common::Binder::Error;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using Test = CallbackTest;
using conv::SecondsDuration;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using zym::common::Uuid;

namespace {

// Requests

/// For a service without a server; in its own callback, which is a reply, for one that exists:
/// the next reply cannot arrive before that callback returns.
void makeUnansweredRequester(Test& t) {
    if (!t.sameObject) {
        t.objects.requester =
            std::make_unique<mqtt::RequestReplyClient>(*t.client, "far", "", "nobody");
    }
}

/// Begins a request, unless one is under way, and ends it by a function of the request client.
template <class End>
auto requestAnd(End end) {
    return [end](Test& t) {
        auto const code = t.objects.request();
        EXPECT_TRUE(code == Code::PENDING || code == Code::BUSY) << code;
        end(t.objects.requester);
    };
}

void expectCancelled(Test& t) {
    EXPECT_TRUE(t.events.waitFor("reply 7"));
    EXPECT_EQ(t.events.count("reply 1"), 0U);
}

void expectTerminated(Test& t) {
    expectCancelled(t);
    EXPECT_EQ(t.objects.request(), Code::CANCELLED);
}

Code requestWait(Test& t) {
    auto const data = std::make_shared<NumberData>();
    auto const code = t.objects.requester->requestWait(
        t.objects.id, Uuid::NIL, std::make_shared<NumberData>(1), data, HOUR_S);
    EXPECT_EQ(data->number, code == Code::SUCCESS ? 7U : 0U);
    return code;
}

/// In its own callback the request has ended already.
Code waitEndOfRequest(Test& t) {
    if (!t.sameObject) {
        EXPECT_EQ(t.objects.request(), Code::PENDING);
    }
    return t.objects.requester->waitEndOfRequest(HOUR_S);
}

void expectService(Test& t) {
    t.sendRequest(t.topic("service?\?"));
    EXPECT_EQ(t.events.count("request"), 1U);
}

void expectNoService(Test& t) {
    t.events.clear();
    t.sendRequest(t.topic("service?\?"));
    EXPECT_EQ(t.events.count("request"), 0U);
}

void serve(Test& t) {
    if (!t.sameObject) {
        EXPECT_EQ(t.objects.serve(), Error::SUCCESS);
        expectService(t);
    }
}

// Time bases

void synchronize(Test& t) {
    EXPECT_TRUE(t.sameObject || t.objects.timeProxy->synchronize(device().id, TIMEOUT_S));
}

/// Of a time base that does not exist: an exchange stays under way.
void beginToSynchronize(Test& t) {
    EXPECT_TRUE(t.sameObject || t.objects.timeProxy->startSync(t.objects.id));
}

void noteTimeReads(Test& t) {
    t.objects.timeReads = device().timeBase.reads;
}

void expectTimeReading(Test& t) {
    EXPECT_TRUE(support::eventually([&] { return device().timeBase.reads > t.objects.timeReads; }));
}

void expectNoSynchronization(Test& t) {
    t.objects.timeProxy->stop();
    EXPECT_FALSE(t.objects.timeProxy->startSync(device().id));
}

void offerTime(Test& t) {
    t.sendRequest(t.topic(t.objects.id.base64URL() + "/timeSync?\?"));
    EXPECT_EQ(t.objects.timeBase->reads, 1);
}

void expectNoTime(Test& t) {
    t.sendRequest(t.topic(t.objects.id.base64URL() + "/timeSync?\?"));
    EXPECT_EQ(t.objects.timeBase->reads, 1);
}

// Bindings

void bind(Test& t) {
    if (!t.sameObject) {
        EXPECT_EQ(t.objects.binder->bindSync(device().id, TIMEOUT_S), Binding::SUCCESS);
    }
}

void expectBound(Test& t) {
    EXPECT_TRUE(t.verdict == Verdict::IN_VAIN || t.events.waitFor("bound 0"));
}

void expectUnbound(Test& t) {
    EXPECT_TRUE(t.events.waitFor("unbound 0"));
}

// Discovery

void discover(Test& t) {
    EXPECT_TRUE(t.objects.discoverer->discoverSync(TIMEOUT_S, true));
}

bool hasEntities(Test& t) {
    auto const entities = t.objects.discoverer->entities();
    return entities.size() == 2 && entities[0].name == "one" && entities[1].name == "two";
}

void expectEntities(Test& t) {
    EXPECT_TRUE(t.verdict == Verdict::IN_VAIN || hasEntities(t));
}

/// Without limit: the one entity does not answer.
void beginToDiscover(Test& t) {
    t.objects.discoverer =
        std::make_unique<mqtt::ServiceDiscovererMqtt>(*t.client, t.topic("links"));
    auto& discoverer = *t.objects.discoverer;
    t.peer.publish(t.topic("links"),
                   R"({"members@count": 1, "members": [{"@id": ")" + t.topic("silent") + "\"}]}", 2,
                   true);
    t.objects.discovery = std::async(std::launch::async, [&discoverer] {
        return discoverer.discoverSync(SecondsDuration::NO_TIMEOUT, true);
    });
    EXPECT_TRUE(support::eventually([&] { return discoverer.entities().size() == 1; }));
}

void expectDiscoveryEnded(Test& t) {
    EXPECT_FALSE(t.objects.discovery.get());
}

// Cleaners

/// With a message on the topic the cleaner calls its listener at once.
void retain(Test& t) {
    t.peer.publish(t.topic("old"), "old", 2, true);
}

/// A request without time ends when the message has come; inside the cleaner's own callback it
/// would end before.
void clean(Test& t) {
    t.objects.cleaner->clean(t.topic("old"), t.sameObject ? hours(1) : milliseconds::zero());
}

void expectCleaned(Test& t) {
    EXPECT_TRUE(t.peerReceives(t.topic("old"), ""));
    EXPECT_TRUE(t.sameObject || t.events.waitFor("cleaned " + t.topic("old")));
}

bool waitAllTasks(Test& t) {
    clean(t);
    bool const done = t.objects.cleaner->waitAllTasks(hours(1));
    EXPECT_EQ(t.events.count("cleaned " + t.topic("old")), done ? 1U : 0U);
    return done;
}

/// In its own callback it is at work anyway.
void beginToClean(Test& t) {
    if (!t.sameObject) {
        t.objects.cleaner->clean(t.topic("for ever"), hours(1));
    }
}

void expectNoCleaning(Test& t) {
    t.objects.cleaner->clean(t.topic("late"), hours(1));
    EXPECT_TRUE(t.objects.cleaner->waitAllTasks(seconds(TIMEOUT_S)));
}

// Timers

void restartTimer(Test& t) {
    t.objects.restartTimer(milliseconds::zero(), true);
}

void runTimer(Test& t) {
    if (!t.sameObject) {
        t.objects.restartTimer(milliseconds(1), false);
        EXPECT_TRUE(t.events.waitFor("timer"));
    }
}

/// One more call may have been decided on before the timer was stopped.
void expectNoExpiry(Test& t) {
    auto const before = t.events.count("timer");
    t.callersEvents.clear();
    t.callers.restartTimer(milliseconds(20), true);
    EXPECT_TRUE(t.callersEvents.waitFor("timer"));
    EXPECT_LE(t.events.count("timer"), before + 1);
}

void expectNoRestart(Test& t) {
    expectNoExpiry(t);
    restartTimer(t);
    expectNoExpiry(t);
}

void flush(Test& t) {
    t.flush();
}

} // namespace

Operations requestReplyOperations() {
    return {
        {"RequestReplyClient/request", nothing, [](Test& t) { return t.objects.request(); },
         [](Test& t) { EXPECT_TRUE(t.events.waitFor("reply 1")); }},
        {"RequestReplyClient/requestWait", nothing, requestWait, nothing},
        {"RequestReplyClient/waitEndOfRequest", nothing, waitEndOfRequest, nothing},
        {"RequestReplyClient/cancel", makeUnansweredRequester,
         requestAnd([](auto& requester) { EXPECT_EQ(requester->cancel(), Code::SUCCESS); }),
         expectCancelled},
        {"RequestReplyClient/terminate", makeUnansweredRequester,
         requestAnd([](auto& requester) { requester->terminate(); }), expectTerminated},
        {"RequestReplyClient/release", makeUnansweredRequester,
         requestAnd([](auto& requester) { requester->release(); }), expectTerminated},
        {"RequestReplyClient/destroy", makeUnansweredRequester,
         requestAnd([](auto& requester) { requester.reset(); }), expectCancelled},
        {"RequestReplyServer/subscribe", nothing, [](Test& t) { return t.objects.serve(); },
         expectService},
        {"RequestReplyServer/unsubscribe", serve,
         [](Test& t) { return t.objects.server->unsubscribe(); }, expectNoService},
        {"RequestReplyServer/unsubscribeWait", serve,
         [](Test& t) { return t.objects.server->unsubscribeWait(); }, expectNoService,
         Kind::WAITS_FOR_THE_BROKER},
        {"RequestReplyServer/release", serve, [](Test& t) { t.objects.server->release(); },
         expectNoService},
        {"RequestReplyServer/destroy", serve, [](Test& t) { t.objects.server.reset(); },
         expectNoService},
    };
}

Operations timeBaseOperations() {
    return {
        {"SynchronizedTimeBaseMqttProxy/startSync", nothing,
         [](Test& t) { return t.objects.timeProxy->startSync(device().id); },
         [](Test& t) { EXPECT_TRUE(t.events.waitFor("synchronized")); }},
        {"SynchronizedTimeBaseMqttProxy/synchronize", nothing,
         [](Test& t) { return t.objects.timeProxy->synchronize(device().id, HOUR_S); }, nothing},
        {"SynchronizedTimeBaseMqttProxy/stop", synchronize,
         [](Test& t) { return t.objects.timeProxy->stop(); },
         [](Test& t) { EXPECT_FALSE(t.objects.timeProxy->isSynchronized()); }},
        {"SynchronizedTimeBaseMqttProxy/forceSync", synchronize,
         [](Test& t) {
             noteTimeReads(t);
             t.objects.timeProxy->forceSync();
         },
         expectTimeReading},
        {"SynchronizedTimeBaseMqttProxy/timeBase", synchronize,
         [](Test& t) { return t.objects.timeProxy->timeBase() > 0; }, nothing},
        {"SynchronizedTimeBaseMqttProxy/terminate", synchronize,
         [](Test& t) { t.objects.timeProxy->terminate(); }, expectNoSynchronization},
        {"SynchronizedTimeBaseMqttProxy/destroy", beginToSynchronize,
         [](Test& t) { t.objects.timeProxy.reset(); }, flush},
        {"SynchronizedTimeBaseMqttAdaptor/terminate", offerTime,
         [](Test& t) { t.objects.timeBase->terminate(); }, expectNoTime},
        {"SynchronizedTimeBaseMqttAdaptor/destroy", offerTime,
         [](Test& t) { t.objects.timeBase.reset(); }, flush},
    };
}

Operations binderOperations() {
    return {
        {"BinderMqttProxy/bind", nothing,
         [](Test& t) { return t.objects.binder->bind(device().id, TIMEOUT_S); }, expectBound},
        {"BinderMqttProxy/bindSync", nothing,
         [](Test& t) { return t.objects.binder->bindSync(device().id, HOUR_S); }, expectBound},
        {"BinderMqttProxy/unbind", bind,
         [](Test& t) { return t.objects.binder->unbind(TIMEOUT_S); }, expectUnbound},
        {"BinderMqttProxy/unbindSync", bind,
         [](Test& t) { return t.objects.binder->unbindSync(HOUR_S); }, expectUnbound,
         Kind::SUCCEEDS_IN_VAIN},
        {"BinderMqttProxy/cancelUnbinding", bind,
         [](Test& t) {
             EXPECT_EQ(t.objects.binder->unbind(TIMEOUT_S), Binding::SUCCESS);
             t.objects.binder->cancelUnbinding();
         },
         expectUnbound},
        {"BinderMqttProxy/forceTimeBaseSync", bind,
         [](Test& t) {
             noteTimeReads(t);
             t.objects.binder->forceTimeBaseSync();
         },
         expectTimeReading},
        {"BinderMqttProxy/timeBase", bind, [](Test& t) { return t.objects.binder->timeBase() > 0; },
         nothing},
        {"BinderMqttProxy/terminate", bind, [](Test& t) { t.objects.binder->terminate(); },
         [](Test& t) { EXPECT_EQ(t.objects.binder->unbind(TIMEOUT_S), Binding::CANCELLED); }},
        {"BinderMqttProxy/destroy", bind, [](Test& t) { t.objects.binder.reset(); }, flush},
    };
}

Operations discoveryOperations() {
    return {
        {"ServiceDiscovererMqtt/discoverSync", nothing,
         [](Test& t) { return t.objects.discoverer->discoverSync(HOUR_S, true); }, expectEntities},
        {"ServiceDiscovererMqtt/waitChange", nothing,
         [](Test& t) { return t.objects.discoverer->waitChange(HOUR_S, true); }, expectEntities},
        {"ServiceDiscovererMqtt/links", discover,
         [](Test& t) { return t.objects.discoverer->links().size() == 2; }, nothing},
        {"ServiceDiscovererMqtt/entities", discover, hasEntities, nothing},
        {"ServiceDiscovererMqtt/cleanSubscriptions", beginToDiscover,
         [](Test& t) { t.objects.discoverer->cleanSubscriptions(); },
         [](Test& t) {
             t.objects.discoverer.reset();
             expectDiscoveryEnded(t);
         }},
        {"ServiceDiscovererMqtt/destroy", beginToDiscover,
         [](Test& t) { t.objects.discoverer.reset(); }, expectDiscoveryEnded},
    };
}

Operations cleanerOperations() {
    return {
        {"TopicCleaner/clean", retain, clean, expectCleaned},
        {"TopicCleaner/waitAllTasks", retain, waitAllTasks, expectCleaned},
        {"TopicCleaner/terminate", beginToClean, [](Test& t) { t.objects.cleaner->terminate(); },
         expectNoCleaning},
        {"TopicCleaner/destroy", beginToClean, [](Test& t) { t.objects.cleaner.reset(); }, flush},
    };
}

Operations timerOperations() {
    return {
        {"Timer/restart", nothing, restartTimer,
         [](Test& t) { EXPECT_TRUE(t.events.waitFor("timer")); }},
        {"Timer/stop", runTimer, [](Test& t) { t.objects.timer->stop(); }, expectNoExpiry},
        {"Timer/terminate", runTimer, [](Test& t) { t.objects.timer->terminate(); },
         expectNoRestart},
        {"Timer/destroy", runTimer, [](Test& t) { t.objects.timer.reset(); }, expectNoExpiry},
    };
}

Operations const& allOperations() {
    static auto const all = [] {
        Operations result;
        for (auto const& some :
             {clientOperations(), dataOperations(), requestReplyOperations(), timeBaseOperations(),
              binderOperations(), discoveryOperations(), cleanerOperations(), timerOperations()}) {
            result.insert(result.end(), some.begin(), some.end());
        }
        return result;
    }();
    return all;
}
