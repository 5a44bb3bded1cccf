// The end of proxies in the midst of their operations. Some of this only a sanitizer can see.

#include "services/binder_frame.hpp"

#include "support/timeout_factor.hpp"
#include "support/watched.hpp"

namespace {

using support::isSet;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

constexpr int ROUNDS = 200 / support::TIMEOUT_FACTOR;

class ATerminatedProxy : public WithAServer {};

TEST_F(ATerminatedProxy, StartsNothing) {
    proxy->terminate();
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::CANCELLED);
    EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::CANCELLED);
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::CANCELLED);
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::CANCELLED);
    EXPECT_THAT(recorder.events(), IsEmpty());
    settle();
    EXPECT_EQ(requests("bind") + requests("unbind"), 0U);
}

TEST_F(ATerminatedProxy, IsNotTerminatedTwice) {
    bind();
    proxy->terminate();
    EXPECT_TRUE(proxy->isTimeBaseSynchronized()) << "the last known time stays";
    proxy->terminate();
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::CANCELLED);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
}

TEST_F(ATerminatedProxy, KeepsItsListenerOutOfWhatWasUnderWay) {
    server.ignoreBindings();
    ASSERT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    auto const request = awaitRequest("bind");
    proxy->terminate();
    peer.publish(replyTopicFor(request.topic), replyText(idIn(request.payload), 1));
    settle();
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_EQ(requests("timeSync"), 0U);
}

TEST_F(ATerminatedProxy, KeepsItsListenerOutOfAnUnbindingUnderWay) {
    server.ignoreUnbindings();
    bind();
    ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    proxy->terminate();
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
}

/// Threads inside blocking operations.
class ABlockingCall : public WithAServer {
protected:
    /// @param name of the request after which nothing more is to come
    void block(std::string const& name, std::function<void()> call) {
        caller = std::make_unique<BlockingThread>(std::move(call));
        awaitRequest(name);
        ASSERT_TRUE(caller->isBlocked());
    }

    void blockInBinding() {
        server.ignoreBindings();
        block("bind",
              [this, asked = proxy.get()] { result = asked->bindSync(server.id, AN_HOUR); });
    }
    void blockInTimeSynchronization() {
        server.withdrawTime();
        block("timeSync",
              [this, asked = proxy.get()] { result = asked->bindSync(server.id, AN_HOUR); });
    }
    void blockInUnbinding() {
        server.ignoreUnbindings();
        bind();
        block("unbind", [this, asked = proxy.get()] { result = asked->unbindSync(AN_HOUR); });
    }

    void expectEnd(Error error) {
        caller->join();
        EXPECT_EQ(result, error);
        settle();
        EXPECT_LE(recorder.count(), 1U);
    }

    Error result = Error::FAILED;
    std::unique_ptr<BlockingThread> caller;
};

TEST_F(ABlockingCall, EndsWhenTheProxyIsTerminatedBeforeTheServerHasAnswered) {
    blockInBinding();
    proxy->terminate();
    expectEnd(Error::CANCELLED);
    EXPECT_THAT(recorder.events(), IsEmpty());
}

TEST_F(ABlockingCall, EndsWhenTheProxyIsTerminatedBeforeTheTimeIsKnown) {
    blockInTimeSynchronization();
    proxy->terminate();
    expectEnd(Error::NOT_SYNCHRONIZED);
    EXPECT_THAT(recorder.events(), IsEmpty());
}

TEST_F(ABlockingCall, EndsWhenTheProxyIsTerminatedBeforeItIsUnbound) {
    blockInUnbinding();
    proxy->terminate();
    expectEnd(Error::SUCCESS);
}

TEST_F(ABlockingCall, EndsBeforeTheProxyIsGoneThatBinds) {
    blockInBinding();
    proxy.reset();
    expectEnd(Error::CANCELLED);
}

TEST_F(ABlockingCall, EndsBeforeTheProxyIsGoneThatReadsTheTime) {
    blockInTimeSynchronization();
    proxy.reset();
    expectEnd(Error::NOT_SYNCHRONIZED);
}

TEST_F(ABlockingCall, EndsBeforeTheProxyIsGoneThatUnbinds) {
    blockInUnbinding();
    proxy.reset();
    expectEnd(Error::SUCCESS);
}

/// The worker is inside the listener's call and destroys the proxy there, while another thread is
/// about to unbind: neither must wait for the other.
/// The termination waits for the listener, and the listener for a server.
TEST_F(ABlockingCall, InsideAListenersCallIsEndedByATermination) {
    server.ignoreBindings();
    support::Watched<bool> inside;
    recorder.setHook([&](auto const&) {
        set(inside);
        EXPECT_EQ(proxy->bindSync(server.id, conv::SecondsDuration::NO_TIMEOUT), Error::CANCELLED);
    });
    block("bind", [this] { EXPECT_EQ(proxy->bindSync(server.id, 0), Error::TIMEOUT); });
    ASSERT_TRUE(inside.waitFor(isSet));
    ASSERT_TRUE(caller->isBlocked());
    proxy->terminate();
    caller->join();
    EXPECT_EQ(recorder.events().size(), 1U) << "what is terminated tells nobody";
}

class AWorkerThatDestroysAProxy : public ABlockingCall {
protected:
    void expectEndWith(conv::SecondsDuration const& timeout) {
        support::Watched<bool> told;
        support::Watched<bool> destroy;
        support::Watched<bool> destroyed;
        recorder.setHook([&](BindingEvent const& event) {
            if (event.first == "unbound") {
                return;
            }
            set(told);
            destroy.waitFor(isSet);
            proxy.reset();
            set(destroyed);
        });
        auto* const asked = proxy.get();
        ASSERT_EQ(asked->bind(server.id, AN_HOUR), Error::SUCCESS);
        ASSERT_TRUE(told.waitFor(isSet));
        caller = std::make_unique<BlockingThread>([&] { result = asked->unbindSync(timeout); });
        ASSERT_TRUE(caller->isBlocked());
        set(destroy);
        caller->join();
        EXPECT_EQ(result, Error::SUCCESS);
        EXPECT_TRUE(destroyed.waitFor(isSet));
    }
};

TEST_F(AWorkerThatDestroysAProxy, EndsTheWaitForTheServer) {
    expectEndWith(AN_HOUR);
}

TEST_F(AWorkerThatDestroysAProxy, EndsTheWaitForItself) {
    expectEndWith(0);
}

/// And a third one waits for the listener's end, to terminate the proxy.
TEST_F(AWorkerThatDestroysAProxy, LetsEverybodyGoWhoWaits) {
    server.ignoreUnbindings();
    support::Watched<bool> told;
    support::Watched<bool> destroy;
    recorder.setHook([&](auto const&) {
        set(told);
        destroy.waitFor(isSet);
        proxy.reset();
    });
    auto* const asked = proxy.get();
    ASSERT_EQ(asked->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(told.waitFor(isSet));
    caller = std::make_unique<BlockingThread>([&] { result = asked->unbindSync(AN_HOUR); });
    ASSERT_TRUE(caller->isBlocked());
    BlockingThread terminating([&] { asked->terminate(); });
    ASSERT_TRUE(terminating.isBlocked());
    set(destroy);
    caller->join();
    terminating.join();
    EXPECT_EQ(result, Error::SUCCESS);
    EXPECT_EQ(proxy, nullptr);
}

/// The end of a proxy inside its own listener.
class AListenerThatDestroysItsProxy : public WithAServer {
protected:
    AListenerThatDestroysItsProxy() {
        asked = proxy.get();
        destroyAt("bound");
    }

    void destroyAt(std::string const& what) {
        recorder.setHook([this, what](BindingEvent const& event) {
            if (event.first != what) {
                return;
            }
            proxy.reset();
            set(destroyed);
        });
    }

    void expectEnd(BindingEvent const& last) {
        ASSERT_TRUE(destroyed.waitFor(isSet));
        settle();
        EXPECT_EQ(recorder.events().back(), last);
        // And nobody is left behind who would disturb the next one.
        recorder.setHook({});
        proxy = makeProxy();
        server.serveBindings();
        server.bindings.setAnswer({});
        EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    }

    support::Watched<bool> destroyed;
    Proxy* asked = nullptr; ///< stays when the pointer that owns it is null
};

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenBound) {
    ASSERT_EQ(asked->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    expectEnd(bound(Error::SUCCESS));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenBoundInACallThatWaits) {
    EXPECT_EQ(asked->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    expectEnd(bound(Error::SUCCESS));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenRefused) {
    server.bindings.setAnswer(saying(23));
    ASSERT_EQ(asked->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    expectEnd(bound(Error::REFUSED));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenRefusedInACallThatWaits) {
    server.bindings.setAnswer(saying(23));
    EXPECT_EQ(asked->bindSync(server.id, AN_HOUR), Error::REFUSED);
    expectEnd(bound(Error::REFUSED));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenNobodyAnswers) {
    server.ignoreBindings();
    ASSERT_EQ(asked->bind(server.id, 0), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    expectEnd(bound(Error::TIMEOUT));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenNobodyAnswersACallThatWaits) {
    server.ignoreBindings();
    EXPECT_EQ(asked->bindSync(server.id, 0), Error::TIMEOUT);
    expectEnd(bound(Error::TIMEOUT));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenItsBindingIsCalledOff) {
    server.ignoreBindings();
    ASSERT_EQ(asked->bind(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(asked->unbind(AN_HOUR), Error::CANCELLED);
    settle();
    EXPECT_EQ(requests("unbind"), 0U);
    expectEnd(bound(Error::CANCELLED));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenItsBindingIsCalledOffByACallThatWaits) {
    server.ignoreBindings();
    ASSERT_EQ(asked->bind(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(asked->unbindSync(AN_HOUR), Error::CANCELLED);
    settle();
    EXPECT_EQ(requests("unbind"), 0U);
    expectEnd(bound(Error::CANCELLED));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoInACallThatAnotherThreadCallsOff) {
    server.ignoreBindings();
    server.ignoreUnbindings();
    Error result = Error::SUCCESS;
    BlockingThread caller([&] { result = asked->bindSync(server.id, AN_HOUR); });
    awaitRequest("bind");
    ASSERT_TRUE(caller.isBlocked());
    // The proxy may be gone before that is sent: the thread called off is in the listener.
    EXPECT_THAT(asked->unbindSync(AN_HOUR), AnyOf(Error::SUCCESS, Error::CANCELLED));
    caller.join();
    EXPECT_EQ(result, Error::CANCELLED);
    expectEnd(bound(Error::CANCELLED));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoInACallThatAnotherThreadCallsOffWithoutWaiting) {
    server.ignoreBindings();
    server.ignoreUnbindings();
    for (int round = 0; round < ROUNDS / 4; ++round) {
        Error result = Error::SUCCESS;
        BlockingThread caller([&] { result = asked->bindSync(server.id, AN_HOUR); });
        ASSERT_TRUE(caller.isBlocked());
        EXPECT_THAT(asked->unbind(AN_HOUR), AnyOf(Error::SUCCESS, Error::CANCELLED));
        caller.join();
        EXPECT_EQ(result, Error::CANCELLED);
        ASSERT_EQ(proxy, nullptr);
        proxy = makeProxy();
        asked = proxy.get();
    }
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenUnbound) {
    destroyAt("unbound");
    ASSERT_EQ(asked->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_EQ(asked->unbind(AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(2));
    expectEnd(unbound(Error::SUCCESS));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenUnboundInACallThatWaits) {
    destroyAt("unbound");
    ASSERT_EQ(asked->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(asked->unbindSync(AN_HOUR), Error::SUCCESS);
    expectEnd(unbound(Error::SUCCESS));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenStillBound) {
    destroyAt("unbound");
    server.unbindings.setAnswer(saying(6));
    ASSERT_EQ(asked->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_EQ(asked->unbind(AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(2));
    expectEnd(unbound(Error::BUSY));
}

TEST_F(AListenerThatDestroysItsProxy, DoesSoWhenStillBoundInACallThatWaits) {
    destroyAt("unbound");
    server.unbindings.setAnswer(saying(6));
    ASSERT_EQ(asked->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(asked->unbindSync(AN_HOUR), Error::BUSY);
    expectEnd(unbound(Error::BUSY));
}

} // namespace
