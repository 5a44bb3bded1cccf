#include "operations.hpp"

using Binding = zym::common::Binder::Error;
using Code = mqtt::RequestReply::ErrorCode;
using Test = CallbackTest;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using zym::common::Uuid;

namespace {

// Requests

void requestOfNobody(Test& t) {
    t.objects.requester = t.objects.requesterOf("nobody");
    t.objects.request();
}

Code requestWait(Test& t) {
    auto const data = std::make_shared<NumberData>();
    auto const code = t.objects.requester->requestWait(
        t.objects.id, Uuid::NIL, std::make_shared<NumberData>(1), data, t.timeoutS);
    EXPECT_EQ(data->number, code == Code::SUCCESS ? 7U : 0U);
    return code;
}

Code waitEndOfRequest(Test& t) {
    t.objects.request();
    return t.objects.requester->waitEndOfRequest(t.timeoutS);
}

bool isCancelled(Test& t) {
    return t.events.waitFor("reply 7") && t.events.count("reply 1") == 0;
}

bool isTerminated(Test& t) {
    return isCancelled(t) && t.objects.request() == Code::CANCELLED;
}

bool serves(Test& t) {
    t.events.clear();
    t.sendRequest(t.topic("service?\?"));
    return t.events.count("request") == 1;
}

// Time bases

void noteTimeReads(Test& t) {
    t.objects.timeReads = device().timeBase.reads.load();
}

bool readsTime(Test& t) {
    return mqtt::test::eventually([&] { return device().timeBase.reads > t.objects.timeReads; });
}

bool cannotSynchronize(Test& t) {
    t.objects.timeProxy->stop();
    return !t.objects.timeProxy->startSync(device().id);
}

bool offersTime(Test& t) {
    int const before = t.objects.timeBase->reads;
    t.sendRequest(t.topic(t.objects.id.base64URL() + "/timeSync?\?"));
    return t.objects.timeBase->reads > before;
}

void offerTime(Test& t) {
    EXPECT_TRUE(offersTime(t));
}

// Bindings

bool isBound(Test& t) {
    return t.verdict == Verdict::IN_VAIN || t.events.waitFor("bound 0");
}

bool isUnbound(Test& t) {
    return t.events.waitFor("unbound 0");
}

// Discovery

Outcome hasEntities(Test& t) {
    auto const entities = t.objects.discoverer->entities();
    return holds(entities.size() == 2 && entities[0].name == "one" && entities[1].name == "two");
}

bool findsEntities(Test& t) {
    return t.verdict == Verdict::IN_VAIN || hasEntities(t) == Outcome::SUCCESS;
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
        return discoverer.discoverSync(conv::SecondsDuration::NO_TIMEOUT, true);
    });
    EXPECT_TRUE(mqtt::test::eventually([&] { return discoverer.entities().size() == 1; }));
}

bool endsDiscovery(Test& t) {
    t.objects.discoverer.reset();
    return !t.objects.discovery.get();
}

// Cleaners

/// With a message on the topic the cleaner calls its listener at once.
void retain(Test& t) {
    t.peer.publish(t.topic("old1"), "old", 2, true);
}

/// Another topic each time: a request for a topic that is being cleaned prolongs the first one. A
/// request without time ends when the message has come.
void clean(Test& t) {
    auto const topic = t.topic("old" + std::to_string(++t.topicsToClean));
    t.objects.cleaner->clean(topic, milliseconds::zero());
}

bool cleans(Test& t) {
    return t.peerReceives(t.topic("old1"), "") && t.events.waitFor("all cleaned");
}

void beginToClean(Test& t) {
    t.objects.cleaner->clean(t.topic("for ever"), hours(1));
}

bool cleansNoMore(Test& t) {
    t.objects.cleaner->clean(t.topic("late"), hours(1));
    return t.objects.cleaner->waitAllTasks(seconds(TIMEOUT_S));
}

// Timers

void restartTimer(Test& t) {
    t.objects.restartTimer(milliseconds::zero(), true);
}

void runTimer(Test& t) {
    t.objects.restartTimer(milliseconds(1), false);
    EXPECT_TRUE(t.events.waitFor("timer"));
}

/// One more call may have been decided on before the timer was stopped.
bool expiresNoMore(Test& t) {
    auto const before = t.events.count("timer");
    t.callersEvents.clear();
    t.callers.restartTimer(milliseconds(20), true);
    return t.callersEvents.waitFor("timer") && t.events.count("timer") <= before + 1;
}

bool cannotRestart(Test& t) {
    bool const stopped = expiresNoMore(t);
    restartTimer(t);
    return stopped && expiresNoMore(t);
}

bool clientGoesOn(Test& t) {
    t.flush();
    return true;
}

} // namespace

Operations serviceOperations() {
    auto const served = done("RequestReplyServer/subscribe");
    auto const synchronized = done("SynchronizedTimeBaseMqttProxy/synchronize");
    auto const bound = done("BinderMqttProxy/bindSync");
    auto const discovered = done("ServiceDiscovererMqtt/discoverSync");
    return {
        {"RequestReplyClient/request", [](Test& t) { return t.objects.request(); },
         [](Test& t) { return t.events.waitFor("reply 1"); }},
        {"RequestReplyClient/requestWait", requestWait},
        {"RequestReplyClient/waitEndOfRequest", waitEndOfRequest},
        {"RequestReplyClient/cancel", [](Test& t) { return t.objects.requester->cancel(); },
         isCancelled, requestOfNobody},
        {"RequestReplyClient/terminate", [](Test& t) { t.objects.requester->terminate(); },
         isTerminated, requestOfNobody},
        {"RequestReplyClient/release", [](Test& t) { t.objects.requester->release(); },
         isTerminated, requestOfNobody},
        {"RequestReplyClient/destroy", [](Test& t) { t.objects.requester.reset(); }, isCancelled,
         requestOfNobody},

        {"RequestReplyServer/subscribe", [](Test& t) { return t.objects.serve(); }, serves},
        {"RequestReplyServer/unsubscribe", [](Test& t) { return t.objects.server->unsubscribe(); },
         no(serves), served},
        {"RequestReplyServer/unsubscribeWait",
         [](Test& t) { return t.objects.server->unsubscribeWait(); }, no(serves), served,
         Kind::WAITS_FOR_THE_BROKER},
        {"RequestReplyServer/release", [](Test& t) { t.objects.server->release(); }, no(serves),
         served},
        {"RequestReplyServer/destroy", [](Test& t) { t.objects.server.reset(); }, no(serves),
         served},

        {"SynchronizedTimeBaseMqttProxy/startSync",
         [](Test& t) { return t.objects.timeProxy->startSync(device().id); },
         [](Test& t) { return t.events.waitFor("synchronized"); }},
        {"SynchronizedTimeBaseMqttProxy/synchronize",
         [](Test& t) { return t.objects.timeProxy->synchronize(device().id, t.timeoutS); }},
        {"SynchronizedTimeBaseMqttProxy/stop", [](Test& t) { return t.objects.timeProxy->stop(); },
         [](Test& t) { return !t.objects.timeProxy->isSynchronized(); }, synchronized},
        {"SynchronizedTimeBaseMqttProxy/forceSync",
         [](Test& t) {
             noteTimeReads(t);
             t.objects.timeProxy->forceSync();
         },
         readsTime, synchronized},
        {"SynchronizedTimeBaseMqttProxy/timeBase",
         [](Test& t) { return holds(t.objects.timeProxy->timeBase() > 0); }, nothingElse,
         synchronized},
        {"SynchronizedTimeBaseMqttProxy/terminate",
         [](Test& t) { t.objects.timeProxy->terminate(); }, cannotSynchronize, synchronized},
        {"SynchronizedTimeBaseMqttProxy/destroy", [](Test& t) { t.objects.timeProxy.reset(); },
         clientGoesOn, // an exchange with nobody stays under way
         [](Test& t) { EXPECT_TRUE(t.objects.timeProxy->startSync(t.objects.id)); }},
        {"SynchronizedTimeBaseMqttAdaptor/terminate",
         [](Test& t) { t.objects.timeBase->terminate(); }, no(offersTime), offerTime},
        {"SynchronizedTimeBaseMqttAdaptor/destroy", [](Test& t) { t.objects.timeBase.reset(); },
         clientGoesOn, offerTime},

        {"BinderMqttProxy/bind",
         [](Test& t) { return t.objects.binder->bind(device().id, TIMEOUT_S); }, isBound},
        {"BinderMqttProxy/bindSync",
         [](Test& t) { return t.objects.binder->bindSync(device().id, t.timeoutS); }, isBound},
        {"BinderMqttProxy/unbind", [](Test& t) { return t.objects.binder->unbind(TIMEOUT_S); },
         isUnbound, bound},
        {"BinderMqttProxy/unbindSync",
         [](Test& t) { return t.objects.binder->unbindSync(t.timeoutS); }, isUnbound, bound,
         Kind::SUCCEEDS_IN_VAIN},
        {"BinderMqttProxy/cancelUnbinding",
         [](Test& t) {
             t.objects.binder->unbind(TIMEOUT_S);
             t.objects.binder->cancelUnbinding();
         },
         isUnbound, bound},
        {"BinderMqttProxy/forceTimeBaseSync",
         [](Test& t) {
             noteTimeReads(t);
             t.objects.binder->forceTimeBaseSync();
         },
         readsTime, bound},
        {"BinderMqttProxy/timeBase",
         [](Test& t) { return holds(t.objects.binder->timeBase() > 0); }, nothingElse, bound},
        {"BinderMqttProxy/terminate", [](Test& t) { t.objects.binder->terminate(); },
         [](Test& t) { return t.objects.binder->unbind(TIMEOUT_S) == Binding::CANCELLED; }, bound},
        {"BinderMqttProxy/destroy", [](Test& t) { t.objects.binder.reset(); }, clientGoesOn, bound},

        {"ServiceDiscovererMqtt/discoverSync",
         [](Test& t) { return t.objects.discoverer->discoverSync(t.timeoutS, true); },
         findsEntities},
        {"ServiceDiscovererMqtt/waitChange",
         [](Test& t) { return t.objects.discoverer->waitChange(t.timeoutS, true); }, findsEntities},
        {"ServiceDiscovererMqtt/links",
         [](Test& t) { return holds(t.objects.discoverer->links().size() == 2); }, nothingElse,
         discovered},
        {"ServiceDiscovererMqtt/entities", hasEntities, nothingElse, discovered},
        {"ServiceDiscovererMqtt/cleanSubscriptions",
         [](Test& t) { t.objects.discoverer->cleanSubscriptions(); }, endsDiscovery,
         beginToDiscover},
        {"ServiceDiscovererMqtt/destroy", [](Test& t) { t.objects.discoverer.reset(); },
         endsDiscovery, beginToDiscover},

        {"TopicCleaner/clean", clean, cleans, retain},
        {"TopicCleaner/waitAllTasks",
         [](Test& t) {
             clean(t);
             return t.objects.cleaner->waitAllTasks(seconds(t.timeoutS));
         },
         cleans, retain},
        {"TopicCleaner/terminate", [](Test& t) { t.objects.cleaner->terminate(); }, cleansNoMore,
         beginToClean},
        {"TopicCleaner/destroy", [](Test& t) { t.objects.cleaner.reset(); }, clientGoesOn,
         beginToClean},

        {"Timer/restart", restartTimer, [](Test& t) { return t.events.waitFor("timer"); }},
        {"Timer/stop", [](Test& t) { t.objects.timer->stop(); }, expiresNoMore, runTimer},
        {"Timer/terminate", [](Test& t) { t.objects.timer->terminate(); }, cannotRestart, runTimer},
        {"Timer/destroy", [](Test& t) { t.objects.timer.reset(); }, expiresNoMore, runTimer},
    };
}

Operations const& allOperations() {
    static auto const all = [] {
        auto result = clientOperations();
        auto const others = serviceOperations();
        result.insert(result.end(), others.begin(), others.end());
        return result;
    }();
    return all;
}

Operation const* findOperation(std::string const& name) {
    auto const& all = allOperations();
    auto const found = std::find_if(all.begin(), all.end(),
                                    [&](auto const& operation) { return operation.name == name; });
    return found == all.end() ? nullptr : &*found;
}
