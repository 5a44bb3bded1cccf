// The end of proxies during their operations. Some defects here are seen by a sanitizer only.

#include "services/binder_fixture.hpp"

#include <ostream>

namespace {

using mqtt::test::isSet;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

class ATerminatedProxy : public ProxyAndServer {};

TEST_F(ATerminatedProxy, StartsNothing) {
    bind();
    proxy->terminate();
    proxy->terminate();
    EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_EQ(proxy->bindSync(server.id, LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_TRUE(proxy->isTimeBaseSynchronized()) << "the last known time stays";
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS)));
    EXPECT_EQ(requests("bind") + requests("unbind"), 1U);
}

TEST_F(ATerminatedProxy, DoesNotCallItsListenerForWhatWasUnderWay) {
    server.ignoreBindings();
    ASSERT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
    auto const request = awaitRequest("bind");
    proxy->terminate();
    replyTo(request, 1);
    receiveAll();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_EQ(requests("timeSync"), 0U);
}

/// A thread inside a blocking operation.
class ABlockedCall : public ProxyAndServer {
protected:
    void block(std::string const& lastRequest, std::function<void()> call) {
        caller = std::make_unique<BlockingThread>(std::move(call));
        awaitRequest(lastRequest);
        ASSERT_TRUE(caller->isBlocked());
    }
    void blockInBinding(std::string const& lastRequest) {
        block(lastRequest,
              [this, asked = proxy.get()] { result = asked->bindSync(server.id, LONG_TIMEOUT_S); });
    }

    /// @param end of the proxy
    void expectEndOfAllCalls(std::function<void()> const& end) {
        auto const expectEnd = [&](Error error) {
            end();
            caller->join();
            EXPECT_EQ(result, error);
            proxy = makeProxy();
            peer.clearMessages();
        };
        server.ignoreBindings();
        blockInBinding("bind");
        expectEnd(Error::CANCELLED);
        server.serveBindings();
        server.withdrawTime();
        blockInBinding("timeSync");
        expectEnd(Error::NOT_SYNCHRONIZED);
        EXPECT_THAT(recorder.calls(), IsEmpty());
        server.offerTime();
        server.ignoreUnbindings();
        bind();
        block("unbind",
              [this, asked = proxy.get()] { result = asked->unbindSync(LONG_TIMEOUT_S); });
        expectEnd(Error::SUCCESS);
        EXPECT_EQ(recorder.count(), 1U);
    }

    Error result = Error::FAILED;
    std::unique_ptr<BlockingThread> caller;
};

TEST_F(ABlockedCall, IsEndedByATermination) {
    expectEndOfAllCalls([&] { proxy->terminate(); });
}

TEST_F(ABlockedCall, IsEndedByADestruction) {
    expectEndOfAllCalls([&] { proxy.reset(); });
}

/// The termination waits for the listener, and the listener waits for a server.
TEST_F(ABlockedCall, InsideAListenersCallIsEndedByATermination) {
    server.ignoreBindings();
    mqtt::test::Watched<bool> inside;
    recorder.setHook([&](auto const&) {
        set(inside);
        EXPECT_EQ(proxy->bindSync(server.id, NO_TIME_LIMIT), Error::CANCELLED);
    });
    block("bind", [this] { EXPECT_EQ(proxy->bindSync(server.id, 0), Error::TIMEOUT); });
    ASSERT_TRUE(inside.waitFor(isSet));
    ASSERT_TRUE(caller->isBlocked());
    proxy->terminate();
    caller->join();
    EXPECT_EQ(recorder.count(), 1U) << "a terminated proxy calls no listener";
}

/// The worker is inside the listener's call and destroys the proxy there, while another thread is
/// about to unbind: neither may wait for the other.
class AWorkerThatDestroysAProxy : public ABlockedCall {
protected:
    void startDestruction() {
        recorder.setHook([&](BindingEvent const& event) {
            if (event.first == "unbound") {
                return;
            }
            set(inside);
            mayDestroy.waitFor(isSet);
            proxy.reset();
            set(destroyed);
        });
        ASSERT_EQ(asked->bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
        ASSERT_TRUE(inside.waitFor(isSet));
    }

    void blockInUnbinding(conv::SecondsDuration const& timeout) {
        caller = std::make_unique<BlockingThread>(
            [this, timeout] { result = asked->unbindSync(timeout); });
        ASSERT_TRUE(caller->isBlocked());
    }

    void expectEnd() {
        set(mayDestroy);
        caller->join();
        EXPECT_EQ(result, Error::SUCCESS);
        EXPECT_TRUE(destroyed.waitFor(isSet));
    }

    mqtt::test::Watched<bool> inside;
    mqtt::test::Watched<bool> mayDestroy;
    mqtt::test::Watched<bool> destroyed;
    Proxy* asked = proxy.get();
};

TEST_F(AWorkerThatDestroysAProxy, EndsAWaitForItself) {
    startDestruction();
    blockInUnbinding(0);
    expectEnd();
}

TEST_F(AWorkerThatDestroysAProxy, EndsTheWaitsForTheServerAndOfATermination) {
    server.ignoreUnbindings();
    startDestruction();
    blockInUnbinding(LONG_TIMEOUT_S);
    BlockingThread terminating([&] { asked->terminate(); });
    ASSERT_TRUE(terminating.isBlocked());
    expectEnd();
    terminating.join();
}

class AListenerThatDestroysItsProxy : public ProxyAndServer {
protected:
    /// What leads to a call of the listener.
    struct LastCall {
        char const* name;
        int bindingCode;   ///< -1: no answer
        int unbindingCode; ///< -1: no answer
        bool callsOff;     ///< an unbinding, before the binding has ended
        BindingEvent event;

        bool unbinds() const { return event.first == "unbound"; }
    };

    void destroyIn(BindingEvent const& last) {
        recorder.setHook([this, name = last.first](BindingEvent const& event) {
            if (event.first == name) {
                proxy.reset();
                set(destroyed);
            }
        });
    }

    /// @param waits whether the operations wait, so that they call the listener
    void makeLastCall(LastCall const& call, bool waits) {
        auto* const asked = proxy.get(); // still set when the listener has reset `proxy`
        conv::SecondsDuration const timeout = call.bindingCode < 0 && !call.callsOff ? 0 : 3600;
        if (call.unbinds()) {
            ASSERT_EQ(asked->bindSync(server.id, timeout), Error::SUCCESS);
        } else if (waits && !call.callsOff) {
            EXPECT_EQ(asked->bindSync(server.id, timeout), call.event.second);
        } else {
            ASSERT_EQ(asked->bind(server.id, timeout), Error::SUCCESS);
        }
        if (call.unbinds() || call.callsOff) {
            auto const error = waits ? asked->unbindSync(timeout) : asked->unbind(timeout);
            EXPECT_EQ(error, waits || call.callsOff ? call.event.second : Error::SUCCESS);
        }
        ASSERT_TRUE(destroyed.waitFor(isSet));
    }

    mqtt::test::Watched<bool> destroyed;
};

TEST_F(AListenerThatDestroysItsProxy, LeavesNothingBehind) {
    for (auto const& call : {LastCall{"bound", 1, 1, false, bound(Error::SUCCESS)},
                             LastCall{"refused", 23, 1, false, bound(Error::REFUSED)},
                             LastCall{"without an answer", -1, 1, false, bound(Error::TIMEOUT)},
                             LastCall{"called off", -1, 1, true, bound(Error::CANCELLED)},
                             LastCall{"unbound", 1, 1, false, unbound(Error::SUCCESS)},
                             LastCall{"still bound", 1, 6, false, unbound(Error::BUSY)}}) {
        for (bool const waits : {false, true}) {
            SCOPED_TRACE(call.name + std::string(waits ? ", in a call that waits" : ""));
            server.ignoreBindings();
            if (call.bindingCode >= 0) {
                server.serveBindings();
            }
            server.bindings.setAnswer(replying(call.bindingCode));
            server.unbindings.setAnswer(replying(call.unbindingCode));
            destroyed.change([](bool& value) { value = false; });
            destroyIn(call.event);
            makeLastCall(call, waits);
            EXPECT_EQ(recorder.calls().back(), call.event);
            EXPECT_EQ(requests("unbind"), call.unbinds() ? 1U : 0U);
            recorder.setHook({});
            peer.clearMessages();
            proxy = makeProxy();
        }
    }
    server.bindings.setAnswer({});
    bind();
}

class ABlockedCallThatDestroysItsProxy : public ABlockedCall {};

TEST_F(ABlockedCallThatDestroysItsProxy, IsCalledOffByAnotherThread) {
    server.ignoreBindings();
    server.ignoreUnbindings();
    recorder.setHook([this](auto const& event) {
        if (event.first == "bound") {
            proxy.reset();
        }
    });
    for (bool const waits : {false, true}) {
        auto* const asked = proxy.get();
        blockInBinding("bind");
        // The other thread may destroy the proxy before this one sends its request.
        EXPECT_THAT(waits ? asked->unbindSync(LONG_TIMEOUT_S) : asked->unbind(LONG_TIMEOUT_S),
                    AnyOf(Error::SUCCESS, Error::CANCELLED));
        caller->join();
        EXPECT_EQ(result, Error::CANCELLED);
        ASSERT_EQ(proxy, nullptr);
        proxy = makeProxy();
        peer.clearMessages();
    }
}

} // namespace
