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

// Requests

namespace {

void makeRequester(Test& t) {
    t.objects.makeRequester("echo");
}

/// For a service that nobody offers; in its own callback, which is a reply, for one that exists:
/// the next reply cannot arrive before that callback returns.
void makeUnansweredRequester(Test& t) {
    t.objects.makeRequester(t.sameObject ? "echo" : "nobody");
}

void request(Test& t) {
    EXPECT_EQ(t.objects.request(), Code::PENDING);
}

void expectCancelled(Test& t) {
    EXPECT_TRUE(t.events.waitFor("reply 7"));
    EXPECT_EQ(t.events.count("reply 1"), 0U);
}

void expectTerminated(Test& t) {
    expectCancelled(t);
    EXPECT_EQ(t.objects.request(), Code::CANCELLED);
}

void requestWait(Test& t) {
    auto const data = std::make_shared<NumberData>();
    bool const works = t.verdict == Verdict::WORKS;
    EXPECT_EQ(t.objects.requester->requestWait(t.objects.id, Uuid::NIL,
                                               std::make_shared<NumberData>(1), data, HOUR_S),
              works ? Code::SUCCESS : Code::TIMEOUT);
    EXPECT_EQ(data->number, works ? 7U : 0U);
}

/// In its own callback the request has ended already.
void waitEndOfRequest(Test& t) {
    if (!t.sameObject) {
        request(t);
    }
    EXPECT_EQ(t.objects.requester->waitEndOfRequest(HOUR_S),
              t.verdict == Verdict::WORKS ? Code::SUCCESS : Code::TIMEOUT);
}

void serve(Test& t) {
    if (!t.sameObject) {
        EXPECT_EQ(t.objects.serve(), Error::SUCCESS);
        t.sendRequest(t.topic("service?\?"));
        EXPECT_EQ(t.events.count("request"), 1U);
    }
}

void serveAgain(Test& t) {
    if (t.sameObject) {
        EXPECT_EQ(t.objects.server->unsubscribe(), Error::SUCCESS);
    }
    EXPECT_EQ(t.objects.serve(), Error::SUCCESS);
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

} // namespace

Operations requestReplyOperations() {
    return {{"RequestReplyClient/request", makeRequester, request,
             [](Test& t) { EXPECT_TRUE(t.events.waitFor("reply 1")); }},
            {"RequestReplyClient/requestWait", makeRequester, requestWait, nothing},
            {"RequestReplyClient/waitEndOfRequest", makeRequester, waitEndOfRequest, nothing},
            {"RequestReplyClient/cancel", makeUnansweredRequester,
             [](Test& t) {
                 request(t);
                 EXPECT_EQ(t.objects.requester->cancel(), Code::SUCCESS);
             },
             expectCancelled},
            {"RequestReplyClient/terminate", makeUnansweredRequester,
             [](Test& t) {
                 request(t);
                 t.objects.requester->terminate();
             },
             expectTerminated},
            {"RequestReplyClient/release", makeUnansweredRequester,
             [](Test& t) {
                 request(t);
                 t.objects.requester->release();
             },
             expectTerminated},
            {"RequestReplyClient/destroy", makeUnansweredRequester,
             [](Test& t) {
                 request(t);
                 t.objects.requester.reset();
             },
             expectCancelled},
            {"RequestReplyServer/subscribe", nothing, serveAgain, expectService},
            {"RequestReplyServer/unsubscribe", serve,
             [](Test& t) { EXPECT_EQ(t.objects.server->unsubscribe(), Error::SUCCESS); },
             expectNoService},
            {"RequestReplyServer/unsubscribeWait", serve,
             [](Test& t) {
                 EXPECT_EQ(t.objects.server->unsubscribeWait(),
                           t.onWorker ? Error::TIMEOUT : Error::SUCCESS);
             },
             expectNoService},
            {"RequestReplyServer/release", serve, [](Test& t) { t.objects.server->release(); },
             expectNoService},
            {"RequestReplyServer/destroy", serve, [](Test& t) { t.objects.server.reset(); },
             expectNoService}};
}

// Time bases

namespace {

void makeTimeProxy(Test& t) {
    t.objects.makeTimeProxy();
}

void synchronize(Test& t) {
    auto& proxy = t.objects.makeTimeProxy();
    EXPECT_TRUE(t.sameObject || proxy.synchronize(device().id, TIMEOUT_S));
}

void restartSync(Test& t) {
    EXPECT_TRUE(t.objects.timeProxy->stop());
    EXPECT_TRUE(t.objects.timeProxy->startSync(device().id));
}

void noteTimeReads(Test& t) {
    t.objects.timeReads = device().timeBase.reads;
}

void expectTimeReading(Test& t) {
    EXPECT_TRUE(support::eventually([&] { return device().timeBase.reads > t.objects.timeReads; }));
}

void offerTime(Test& t) {
    auto const& timeBase = t.objects.makeTimeBase();
    t.sendRequest(t.topic(t.objects.id.base64URL() + "/timeSync?\?"));
    EXPECT_EQ(timeBase.reads, 1);
}

/// The one reply on the server's topic is that of `offerTime`.
void expectNoTime(Test& t) {
    auto const service = t.topic(t.objects.id.base64URL() + "/timeSync?");
    t.sendRequest(service + "?");
    t.peer.publish(t.topic("end"), "");
    auto const all = t.peer.messages();
    EXPECT_EQ(std::count_if(
                  all.begin(), all.end(),
                  [&](auto const& message) { return message.topic.rfind(service + "=", 0) == 0; }),
              1);
}

} // namespace

Operations timeBaseOperations() {
    return {{"SynchronizedTimeBaseMqttProxy/startSync", makeTimeProxy, restartSync,
             [](Test& t) { EXPECT_TRUE(t.events.waitFor("synchronized")); }},
            {"SynchronizedTimeBaseMqttProxy/synchronize", makeTimeProxy,
             [](Test& t) {
                 EXPECT_EQ(t.objects.timeProxy->synchronize(device().id, HOUR_S),
                           t.verdict == Verdict::WORKS);
             },
             [](Test& t) {
                 EXPECT_TRUE(t.verdict == Verdict::IN_VAIN
                             || t.objects.timeProxy->isSynchronized());
             }},
            {"SynchronizedTimeBaseMqttProxy/stop", synchronize,
             [](Test& t) { EXPECT_TRUE(t.objects.timeProxy->stop()); },
             [](Test& t) { EXPECT_FALSE(t.objects.timeProxy->isSynchronized()); }},
            {"SynchronizedTimeBaseMqttProxy/forceSync", synchronize,
             [](Test& t) {
                 noteTimeReads(t);
                 t.objects.timeProxy->forceSync();
             },
             expectTimeReading},
            {"SynchronizedTimeBaseMqttProxy/timeBase", synchronize,
             [](Test& t) {
                 EXPECT_TRUE(t.objects.timeProxy->isSynchronized());
                 EXPECT_LE(t.objects.timeProxy->timeBase(), device().timeBase.timeBase() + 1);
             },
             nothing},
            {"SynchronizedTimeBaseMqttProxy/terminate", synchronize,
             [](Test& t) { t.objects.timeProxy->terminate(); },
             [](Test& t) {
                 t.objects.timeProxy->stop();
                 EXPECT_FALSE(t.objects.timeProxy->startSync(device().id));
             }},
            {"SynchronizedTimeBaseMqttProxy/destroy",
             [](Test& t) {
                 auto& proxy = t.objects.makeTimeProxy();
                 EXPECT_TRUE(t.sameObject || proxy.startSync(t.objects.id));
             },
             [](Test& t) { t.objects.timeProxy.reset(); }, [](Test& t) { t.flush(); }},
            {"SynchronizedTimeBaseMqttAdaptor/terminate", offerTime,
             [](Test& t) { t.objects.timeBase->terminate(); },
             [](Test& t) {
                 expectNoTime(t);
                 EXPECT_EQ(t.objects.timeBase->reads, 1);
             }},
            {"SynchronizedTimeBaseMqttAdaptor/destroy", offerTime,
             [](Test& t) { t.objects.timeBase.reset(); }, expectNoTime}};
}

// Bindings

namespace {

void makeBinder(Test& t) {
    t.objects.makeBinder();
}

void bind(Test& t) {
    auto& binder = t.objects.makeBinder();
    if (!t.sameObject) {
        EXPECT_EQ(binder.bindSync(device().id, TIMEOUT_S), Binding::SUCCESS);
    }
}

void expectBound(Test& t) {
    EXPECT_TRUE(t.verdict == Verdict::IN_VAIN || t.events.waitFor("bound 0"));
}

void expectUnbound(Test& t) {
    EXPECT_TRUE(t.events.waitFor("unbound 0"));
}

} // namespace

Operations binderOperations() {
    return {{"BinderMqttProxy/bind", makeBinder,
             [](Test& t) {
                 EXPECT_EQ(t.objects.binder->bind(device().id, TIMEOUT_S), Binding::SUCCESS);
             },
             expectBound, false, "unbound 0"},
            {"BinderMqttProxy/bindSync", makeBinder,
             [](Test& t) {
                 EXPECT_EQ(t.objects.binder->bindSync(device().id, HOUR_S),
                           t.verdict == Verdict::WORKS ? Binding::SUCCESS : Binding::TIMEOUT);
             },
             expectBound},
            {"BinderMqttProxy/unbind", bind,
             [](Test& t) { EXPECT_EQ(t.objects.binder->unbind(TIMEOUT_S), Binding::SUCCESS); },
             expectUnbound},
            {"BinderMqttProxy/cancelUnbinding", bind,
             [](Test& t) {
                 EXPECT_EQ(t.objects.binder->unbind(TIMEOUT_S), Binding::SUCCESS);
                 t.objects.binder->cancelUnbinding();
             },
             expectUnbound},
            // In vain it succeeds too: the binding ends without the server's answer.
            {"BinderMqttProxy/unbindSync", bind,
             [](Test& t) { EXPECT_EQ(t.objects.binder->unbindSync(HOUR_S), Binding::SUCCESS); },
             expectUnbound},
            {"BinderMqttProxy/forceTimeBaseSync", bind,
             [](Test& t) {
                 noteTimeReads(t);
                 t.objects.binder->forceTimeBaseSync();
             },
             expectTimeReading},
            {"BinderMqttProxy/timeBase", bind,
             [](Test& t) {
                 EXPECT_TRUE(t.objects.binder->isTimeBaseSynchronized());
                 EXPECT_LE(t.objects.binder->timeBase(), device().timeBase.timeBase() + 1);
             },
             nothing},
            {"BinderMqttProxy/terminate", bind, [](Test& t) { t.objects.binder->terminate(); },
             [](Test& t) { EXPECT_EQ(t.objects.binder->unbind(TIMEOUT_S), Binding::CANCELLED); }},
            {"BinderMqttProxy/destroy", bind, [](Test& t) { t.objects.binder.reset(); },
             [](Test& t) { t.flush(); }}};
}

// Discovery

namespace {

void makeDiscoverer(Test& t) {
    t.objects.makeDiscoverer("far/links");
}

void discover(Test& t) {
    EXPECT_TRUE(t.objects.makeDiscoverer("far/links").discoverSync(TIMEOUT_S, true));
}

void expectEntities(Test& t) {
    if (t.verdict == Verdict::WORKS) {
        auto const entities = t.objects.discoverer->entities();
        ASSERT_EQ(entities.size(), 2U);
        EXPECT_EQ(entities[0].name, "one");
        EXPECT_EQ(entities[1].name, "two");
    }
}

/// Without limit: the one entity does not answer.
void beginToDiscover(Test& t) {
    auto& discoverer = t.objects.makeDiscoverer(t.topic("links"));
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

} // namespace

Operations discoveryOperations() {
    return {{"ServiceDiscovererMqtt/discoverSync", makeDiscoverer,
             [](Test& t) {
                 EXPECT_EQ(t.objects.discoverer->discoverSync(HOUR_S, true),
                           t.verdict == Verdict::WORKS);
             },
             expectEntities},
            {"ServiceDiscovererMqtt/waitChange", makeDiscoverer,
             [](Test& t) {
                 EXPECT_EQ(t.objects.discoverer->waitChange(HOUR_S, true),
                           t.verdict == Verdict::WORKS);
             },
             expectEntities},
            {"ServiceDiscovererMqtt/links", discover,
             [](Test& t) { EXPECT_EQ(t.objects.discoverer->links().size(), 2U); }, nothing},
            {"ServiceDiscovererMqtt/entities", discover, expectEntities, nothing},
            {"ServiceDiscovererMqtt/cleanSubscriptions", beginToDiscover,
             [](Test& t) { t.objects.discoverer->cleanSubscriptions(); },
             [](Test& t) {
                 t.causes("", t.topic("silent/identification"), R"({"name": "late"})");
                 EXPECT_EQ(t.objects.discoverer->entities().at(0).name, "");
                 t.objects.discoverer.reset();
                 expectDiscoveryEnded(t);
             }},
            {"ServiceDiscovererMqtt/destroy", beginToDiscover,
             [](Test& t) { t.objects.discoverer.reset(); }, expectDiscoveryEnded}};
}

// Cleaners and timers

namespace {

/// With a message on the topic the cleaner calls its listener at once.
void retain(Test& t) {
    t.objects.makeCleaner();
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

void waitAllTasks(Test& t) {
    clean(t);
    bool const works = t.verdict == Verdict::WORKS;
    EXPECT_EQ(t.objects.cleaner->waitAllTasks(hours(1)), works);
    EXPECT_TRUE(!works || t.events.count("cleaned " + t.topic("old")) == 1);
}

/// In its own callback it is at work anyway.
void beginToClean(Test& t) {
    if (!t.sameObject) {
        t.objects.makeCleaner().clean(t.topic("for ever"), hours(1));
    }
}

void makeTimer(Test& t) {
    t.objects.makeTimer();
}

void runTimer(Test& t) {
    if (!t.sameObject) {
        t.objects.makeTimer();
        t.objects.restartTimer(milliseconds(1), false);
        EXPECT_TRUE(t.events.waitFor("timer"));
    }
}

/// One more call may have been decided on before the timer was stopped.
void expectNoExpiry(Test& t) {
    t.callers.makeTimer();
    auto const before = t.events.count("timer");
    t.callersEvents.clear();
    t.callers.restartTimer(milliseconds(20), true);
    EXPECT_TRUE(t.callersEvents.waitFor("timer"));
    EXPECT_LE(t.events.count("timer"), before + 1);
}

} // namespace

Operations cleanerOperations() {
    return {{"TopicCleaner/clean", retain, clean, expectCleaned},
            {"TopicCleaner/waitAllTasks", retain, waitAllTasks, expectCleaned},
            {"TopicCleaner/terminate", beginToClean,
             [](Test& t) { t.objects.cleaner->terminate(); },
             [](Test& t) {
                 t.objects.cleaner->clean(t.topic("late"), hours(1));
                 EXPECT_TRUE(t.objects.cleaner->waitAllTasks(seconds(TIMEOUT_S)));
             }},
            {"TopicCleaner/destroy", beginToClean, [](Test& t) { t.objects.cleaner.reset(); },
             [](Test& t) { t.flush(); }}};
}

Operations timerOperations() {
    return {{"Timer/restart", makeTimer,
             [](Test& t) { t.objects.restartTimer(milliseconds::zero(), true); },
             [](Test& t) { EXPECT_TRUE(t.events.waitFor("timer")); }},
            {"Timer/stop", runTimer, [](Test& t) { t.objects.timer->stop(); }, expectNoExpiry},
            {"Timer/terminate", runTimer, [](Test& t) { t.objects.timer->terminate(); },
             [](Test& t) {
                 expectNoExpiry(t);
                 t.objects.restartTimer(milliseconds::zero(), true);
                 expectNoExpiry(t);
             }},
            {"Timer/destroy", runTimer, [](Test& t) { t.objects.timer.reset(); }, expectNoExpiry}};
}
