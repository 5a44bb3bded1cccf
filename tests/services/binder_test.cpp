// Bindings with a real server on a real broker.

#include "services/binder_fixture.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

class ABinding : public ProxyAndServer {};

TEST_F(ABinding, DoesNotExistAtFirst) {
    expectUnbound();
    proxy->forceTimeBaseSync();
    EXPECT_EQ(requests("timeSync"), 0U);
    EXPECT_THAT(recorder.calls(), IsEmpty());
}

TEST_F(ABinding, ExistsWhenBindSyncReturns) {
    mqtt::test::Watched<std::string> topic;
    server.bindings.setAnswer([&](auto const& data, auto&) {
        topic.change([&](auto& text) {
            text = dynamic_cast<mqtt::BindRequestData const&>(data).topic.text();
        });
        return nullptr;
    });
    EXPECT_EQ(proxy->bindSync(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS)));
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    expectBound();
    EXPECT_EQ(requests("bind"), 1U);
    ASSERT_EQ(server.bindings.count(), 1U);
    EXPECT_EQ(server.bindings.calls()[0].clientUuid, id);
    EXPECT_EQ(server.bindings.calls()[0].name, "bind");
    EXPECT_EQ(topic.copy(), BOUND_TOPIC.text());
}

TEST_F(ABinding, NeedsNoListener) {
    Proxy silent(*mqtt, BASE_TOPIC, SUB_PATH, id, BOUND_TOPIC, nullptr);
    EXPECT_EQ(silent.bindSync(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(silent.unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(silent.bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_TRUE(mqtt::test::eventually([&] { return silent.isTimeBaseSynchronized(); }));
}

TEST_F(ABinding, RefusesAnotherOneUntilTheServersTimeIsKnown) {
    auto const expectBusy = [this] {
        EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::BUSY);
        EXPECT_EQ(proxy->bindSync(server.id, LONG_TIMEOUT_S), Error::BUSY);
        EXPECT_FALSE(proxy->isTimeBaseSynchronized());
        EXPECT_THAT(recorder.calls(), IsEmpty());
    };
    server.ignoreBindings();
    server.withdrawTime();
    EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    expectBusy();
    replyTo(awaitRequest("bind"), 1);
    awaitRequest("timeSync");
    expectBusy();
    server.offerTime(); // the proxy repeats its request
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS)));
    expectBound();
    EXPECT_EQ(requests("bind"), 1U);
}

TEST_F(ABinding, ExistsWhenTheListenerIsCalledAndMayBeEndedInsideTheCall) {
    recorder.setHook([&](BindingEvent const& event) {
        EXPECT_EQ(proxy->isTimeBaseSynchronized(), event.first == "bound");
        if (recorder.count() > 4) {
            return;
        }
        auto const next = event.first == "bound" ? proxy->unbind(LONG_TIMEOUT_S)
                                                 : proxy->bind(server.id, LONG_TIMEOUT_S);
        EXPECT_EQ(next, Error::SUCCESS);
    });
    EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(5));
    EXPECT_NE(recorder.lastThread(), std::this_thread::get_id());
    expectBound();
    EXPECT_THAT(recorder.calls(),
                ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS), bound(Error::SUCCESS),
                            unbound(Error::SUCCESS), bound(Error::SUCCESS)));
}

class ABindingThatFails : public ProxyAndServer {
protected:
    /// Both in a call that waits and with the listener.
    void expectFailure(Error error, conv::SecondsDuration const& timeout = LONG_TIMEOUT_S) {
        BindingRecorder own;
        Proxy failing(*mqtt, BASE_TOPIC, SUB_PATH, id, BOUND_TOPIC, &own);
        EXPECT_EQ(failing.bindSync(server.id, timeout), error);
        EXPECT_EQ(failing.unbind(LONG_TIMEOUT_S), Error::NOT_BOUND);
        EXPECT_EQ(failing.bind(server.id, timeout), Error::SUCCESS);
        ASSERT_TRUE(own.waitForCount(2));
        EXPECT_EQ(failing.unbind(LONG_TIMEOUT_S), Error::NOT_BOUND);
        EXPECT_THAT(own.calls(), ElementsAre(bound(error), bound(error)));
    }
};

TEST_F(ABindingThatFails, EndsWithTheErrorOfTheReply) {
    for (auto const& [code, error] :
         std::vector<std::pair<int, int>>{{0, 1}, {3, 3}, {6, 2}, {7, 9}, {17, 1}, {255, 239}}) {
        SCOPED_TRACE(code);
        server.bindings.setAnswer(replying(code));
        expectFailure(static_cast<Error>(error));
    }
    server.serveBindingsWithoutAListener();
    expectFailure(Error::NO_SERVER);
    server.ignoreBindings();
    expectFailure(Error::TIMEOUT, 0);
    EXPECT_EQ(requests("timeSync"), 0U);
    server.bindings.setAnswer({});
    server.serveBindings();
    bind();
    expectBound();
}

/// A derived class has ended the binding in the base, but its request is still pending.
TEST_F(ABindingThatFails, EndsWithBusyWhenItsRequestCannotBeSent) {
    server.ignoreBindings();
    for (bool const blocking : {false, true}) {
        BindingRecorder own;
        DerivedProxy derived(*mqtt, id, &own);
        EXPECT_EQ(derived.bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
        derived.endBinding(Error::FAILED);
        EXPECT_EQ(blocking ? derived.bindSync(server.id, LONG_TIMEOUT_S)
                           : derived.bind(server.id, LONG_TIMEOUT_S),
                  Error::BUSY);
        EXPECT_THAT(own.calls(), ElementsAre(bound(Error::FAILED), bound(Error::BUSY)));
        EXPECT_EQ(derived.unbind(LONG_TIMEOUT_S), Error::NOT_BOUND);
        EXPECT_EQ(derived.bindSync(server.id, 0), Error::TIMEOUT);
    }
    EXPECT_EQ(requests("bind"), 4U) << "none for the refused ones";
}

class TheTimeOfAServer : public ProxyAndServer {};

TEST_F(TheTimeOfAServer, IsThatOfTheServerBoundTo) {
    BindingServer other(broker, 1000000);
    bind();
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(proxy->bindSync(other.id, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_TRUE(isTimeOf(other, proxy->timeBase()));
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(server.unbindings.count(), 1U);
    EXPECT_EQ(other.unbindings.count(), 1U);
    EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(5));
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
}

/// Through the hook of a derived class.
TEST_F(TheTimeOfAServer, EndsTheBindingUnlessADerivedProxyPreventsIt) {
    DerivedProxy derived(*mqtt, id, &recorder);
    EXPECT_EQ(derived.bindSync(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(derived.unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    derived.setEndsBinding(false);
    EXPECT_EQ(derived.bindSync(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(derived.bind(server.id, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(derived.unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(derived.bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    ASSERT_TRUE(derived.waitForSynchronizations(3));
    EXPECT_EQ(derived.bind(server.id, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS),
                                              unbound(Error::SUCCESS)));
}

} // namespace
