// The end of proxies during their operations. Some defects here are seen by a sanitizer only.

#include "services/binder_fixture.hpp"

#include <functional>

namespace {

using mqtt::test::isSet;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

using ATerminatedProxy = AProxyOnAScript;

TEST_F(ATerminatedProxy, StartsNothing) {
    bind();
    proxy->terminate();
    proxy->terminate();
    EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_TRUE(proxy->isTimeBaseSynchronized()) << "the last known time stays";
    EXPECT_NEAR(proxy->timeBase(), SERVER_TIME, 120);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS)));
    EXPECT_EQ(requests("bind").size() + requests("unbind").size(), 1U);
}

/// A thread inside a blocking operation.
class ABlockedCall : public AProxyOnAScript {
protected:
    void block(std::string const& lastRequest, std::function<void()> call) {
        auto const before = requests(lastRequest).size();
        caller = std::make_unique<BlockingThread>(std::move(call));
        awaitRequest(lastRequest, before + 1);
        ASSERT_TRUE(caller->isBlocked());
    }
    void blockInBinding(std::string const& lastRequest) {
        block(lastRequest,
              [this, asked = proxy.get()] { result = asked->bindSync(server, LONG_TIMEOUT_S); });
    }

    Error result = Error::FAILED;
    std::unique_ptr<BlockingThread> caller;
};

TEST_F(ABlockedCall, IsEndedByATerminationAndByADestruction) {
    for (bool const destroys : {false, true}) {
        SCOPED_TRACE(destroys);
        auto const expectEnd = [&](Error error) {
            destroys ? proxy.reset() : proxy->terminate();
            caller->join();
            EXPECT_EQ(result, error);
            proxy = makeProxy();
        };
        ignore("bind");
        blockInBinding("bind");
        expectEnd(Error::CANCELLED);
        answer("bind");
        ignore("timeSync");
        blockInBinding("timeSync");
        expectEnd(Error::NOT_SYNCHRONIZED);
        EXPECT_THAT(recorder.calls(), IsEmpty());
        answer("timeSync");
        ignore("unbind");
        bind();
        block("unbind",
              [this, asked = proxy.get()] { result = asked->unbindSync(LONG_TIMEOUT_S); });
        expectEnd(Error::SUCCESS);
        EXPECT_EQ(recorder.count(), 1U);
        recorder.clear();
    }
}

/// The termination waits for the listener, and the listener waits for a server.
TEST_F(ABlockedCall, InsideAListenersCallIsEndedByATermination) {
    for (std::string const blocked : {"unbind", "bind"}) {
        SCOPED_TRACE(blocked);
        ignore(blocked);
        mqtt::test::Watched<bool> inside;
        bool const binds = blocked == "bind";
        recorder.setHook([&](auto const&) {
            set(inside);
            auto const error =
                binds ? proxy->bindSync(server, NO_TIME_LIMIT) : proxy->unbindSync(NO_TIME_LIMIT);
            EXPECT_EQ(error, binds ? Error::CANCELLED : Error::SUCCESS);
        });
        block(blocked, [&] {
            EXPECT_EQ(proxy->bindSync(server, binds ? 0 : LONG_TIMEOUT_S),
                      binds ? Error::TIMEOUT : Error::SUCCESS);
        });
        ASSERT_TRUE(inside.waitFor(isSet));
        ASSERT_TRUE(caller->isBlocked());
        proxy->terminate();
        caller->join();
        EXPECT_EQ(recorder.count(), 1U) << "a terminated proxy calls no listener";
        recorder.clear();
        proxy = makeProxy();
    }
}

/// The worker is inside the listener's call and destroys the proxy there, while another thread
/// unbinds and a third one terminates: none may wait for another.
TEST_F(ABlockedCall, IsEndedByAWorkerThatDestroysTheProxy) {
    mqtt::test::Watched<bool> inside;
    mqtt::test::Watched<bool> mayDestroy;
    recorder.setHook([&](auto const&) {
        set(inside);
        mayDestroy.waitFor(isSet);
        proxy.reset();
    });
    ignore("unbind");
    auto* const asked = proxy.get();
    ASSERT_EQ(asked->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    ASSERT_TRUE(inside.waitFor(isSet));
    block("unbind", [&] { result = asked->unbindSync(LONG_TIMEOUT_S); });
    BlockingThread terminating([&] { asked->terminate(); });
    ASSERT_TRUE(terminating.isBlocked());
    set(mayDestroy);
    caller->join();
    terminating.join();
    handleAll();
    EXPECT_EQ(result, Error::SUCCESS);
    EXPECT_EQ(proxy, nullptr);
}

TEST_F(ABlockedCall, ThatDestroysItsProxyIsCalledOffByAnotherThread) {
    ignore("bind");
    ignore("unbind");
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
    }
}

class AListenerThatDestroysItsProxy : public AProxyOnAScript {
protected:
    /// What leads to a call of the listener.
    struct LastCall {
        char const* name;
        BindingEvent event;
        int bindingCode = 1; ///< 0: none, and an unbinding calls the binding off
        int unbindingCode = 1;
    };

    /// @param waits whether the operation waits, so that it calls the listener
    static void unbind(Proxy& asked, bool waits, Error error) {
        EXPECT_EQ(waits ? asked.unbindSync(LONG_TIMEOUT_S) : asked.unbind(LONG_TIMEOUT_S), error);
    }
    /// @param asked the proxy, also when the listener has reset `proxy`
    void makeLastCall(Proxy& asked, LastCall const& call, bool waits) {
        auto const error = waits ? call.event.second : Error::SUCCESS;
        if (call.event.first == "unbound") {
            ASSERT_EQ(asked.bindSync(server, LONG_TIMEOUT_S), Error::SUCCESS);
            unbind(asked, waits, error);
        } else if (call.bindingCode == 0) {
            ignore("bind");
            ASSERT_EQ(asked.bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
            unbind(asked, waits, call.event.second);
        } else {
            EXPECT_EQ(waits ? asked.bindSync(server, LONG_TIMEOUT_S)
                            : asked.bind(server, LONG_TIMEOUT_S),
                      error);
        }
    }
};

TEST_F(AListenerThatDestroysItsProxy, LeavesNothingBehind) {
    for (auto const& call :
         {LastCall{"bound", bound(Error::SUCCESS)}, LastCall{"refused", bound(Error::REFUSED), 23},
          LastCall{"called off", bound(Error::CANCELLED), 0},
          LastCall{"unbound", unbound(Error::SUCCESS)},
          LastCall{"still bound", unbound(Error::BUSY), 1, 6}}) {
        for (bool const waits : {false, true}) {
            SCOPED_TRACE(call.name + std::string(waits ? ", in a call that waits" : ""));
            answer("bind", call.bindingCode);
            answer("unbind", call.unbindingCode);
            auto const unbindings = requests("unbind").size();
            mqtt::test::Watched<bool> destroyed;
            recorder.setHook([&](BindingEvent const& event) {
                if (event.first == call.event.first) {
                    proxy.reset();
                    set(destroyed);
                }
            });
            makeLastCall(*proxy, call, waits);
            ASSERT_TRUE(destroyed.waitFor(isSet));
            EXPECT_EQ(recorder.calls().back(), call.event);
            bool const unbinds = call.event.first == "unbound";
            EXPECT_EQ(requests("unbind").size(), unbindings + (unbinds ? 1U : 0U));
            handleAll();
            recorder.setHook({});
            proxy = makeProxy();
        }
    }
    bind();
}

} // namespace
