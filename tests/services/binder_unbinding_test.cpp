// Unbindings, which also call off a binding under way, on a real broker.

#include "services/binder_fixture.hpp"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

using Error = BinderError;

class AnUnbinding : public ProxyAndServer {
protected:
    void expectOver(std::size_t events) {
        ASSERT_TRUE(recorder.waitForCount(events));
        EXPECT_EQ(recorder.count(), events);
        EXPECT_EQ(recorder.calls().back(), unbound(Error::SUCCESS));
        expectUnbound();
    }
};

TEST_F(AnUnbinding, RefusesEverythingElseMeanwhile) {
    server.ignoreUnbindings();
    bind();
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->bindSync(server.id, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(requests("unbind"), 1U);
    EXPECT_EQ(recorder.count(), 1U);
    EXPECT_TRUE(proxy->isTimeBaseSynchronized()) << "until the server has answered";
}

TEST_F(AnUnbinding, IsOverUnlessTheServerIsBusyOrMissing) {
    using Case = std::pair<int, Error>;
    for (auto const& [code, error] :
         {Case(0, Error::SUCCESS), Case(1, Error::SUCCESS), Case(3, Error::SUCCESS),
          Case(4, Error::NO_SERVER), Case(6, Error::BUSY), Case(17, Error::SUCCESS),
          Case(18, Error::BUSY), Case(20, Error::NO_SERVER), Case(22, Error::SUCCESS),
          Case(255, Error::SUCCESS)}) {
        for (bool const waits : {true, false}) {
            SCOPED_TRACE(code);
            bind();
            server.unbindings.setAnswer(replying(code));
            auto const before = recorder.count();
            EXPECT_EQ(waits ? proxy->unbindSync(LONG_TIMEOUT_S) : proxy->unbind(LONG_TIMEOUT_S),
                      waits ? error : Error::SUCCESS);
            ASSERT_TRUE(recorder.waitForCount(before + 1));
            EXPECT_EQ(recorder.calls().back(), unbound(error));
            EXPECT_EQ(recorder.lastThread() == std::this_thread::get_id(), waits);
            EXPECT_EQ(server.unbindings.calls().back().clientUuid, id);
            if (error != Error::SUCCESS) {
                expectBound();
                server.unbindings.setAnswer({});
                EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
            }
            expectUnbound();
        }
    }
}

TEST_F(AnUnbinding, IsOverWithoutAnAnswerOrWhenItIsCancelled) {
    server.ignoreUnbindings();
    proxy->cancelUnbinding(); // there is none yet
    bind();
    EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
    expectOver(2);
    bind();
    EXPECT_EQ(proxy->unbind(0), Error::SUCCESS);
    expectOver(4);
    bind();
    EXPECT_EQ(proxy->unbind(NO_TIME_LIMIT), Error::SUCCESS);
    proxy->cancelUnbinding();
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    expectOver(6);
    bind();
    BlockingThread caller([&] { EXPECT_EQ(proxy->unbindSync(NO_TIME_LIMIT), Error::SUCCESS); });
    awaitRequest("unbind", 4);
    ASSERT_TRUE(caller.isBlocked());
    proxy->cancelUnbinding();
    caller.join();
    expectOver(8);
}

/// A binding under way is called off by an unbinding.
class ABindingCalledOff : public ProxyAndServer {
protected:
    void startBinding() {
        EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::SUCCESS);
        request = awaitRequest("bind");
    }

    /// The server grants the binding late.
    void replyLate() {
        replyTo(request, 1);
        receiveAll();
    }

    mqtt::test::Message request;
};

TEST_F(ABindingCalledOff, IsNotRevivedByItsReply) {
    server.ignoreBindings();
    server.ignoreUnbindings();
    startBinding();
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED)));
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    auto const unbinding = awaitRequest("unbind");
    replyLate();
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED)));
    replyTo(unbinding, 1);
    replyLate();
    expectUnbound();
    EXPECT_EQ(requests("timeSync"), 0U);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
}

TEST_F(ABindingCalledOff, IsOverAlsoWhenTheServerIsBusy) {
    server.ignoreBindings();
    server.unbindings.setAnswer(replying(6));
    startBinding();
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED), unbound(Error::BUSY)));
    expectUnbound();
}

TEST_F(ABindingCalledOff, LetsItsListenerTerminate) {
    server.ignoreBindings();
    recorder.setHook([&](auto const&) { proxy->terminate(); });
    startBinding();
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_EQ(requests("unbind"), 0U);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED)));
}

TEST_F(ABindingCalledOff, LetsItsListenerCancelTheUnbindingToo) {
    server.ignoreBindings();
    recorder.setHook([&](BindingEvent const& event) {
        if (event.first == "bound") {
            proxy->cancelUnbinding();
        }
    });
    startBinding();
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    startBinding();
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(recorder.count(), 4U);
    EXPECT_EQ(requests("unbind"), 0U);
    expectUnbound();
}

/// A thread inside bindSync.
class AWaitForABinding : public ProxyAndServer {
protected:
    void startWaiting(std::string const& lastRequest) {
        waiting = std::make_unique<BlockingThread>(
            [this] { result = proxy->bindSync(server.id, LONG_TIMEOUT_S); });
        awaitRequest(lastRequest);
        ASSERT_TRUE(waiting->isBlocked());
    }

    void expectBindableAgain() {
        expectUnbound();
        server.ignoreBindings();
        server.serveBindings();
        server.offerTime();
        bind();
        expectBound();
    }

    Error result = Error::SUCCESS;
    std::unique_ptr<BlockingThread> waiting;
};

TEST_F(AWaitForABinding, IsCancelledByAnUnbinding) {
    server.ignoreBindings();
    startWaiting("bind");
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    waiting->join();
    EXPECT_EQ(result, Error::CANCELLED);
    // Two threads call the listener.
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.calls(),
                UnorderedElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    EXPECT_TRUE(
        mqtt::test::eventually([&] { return proxy->unbind(LONG_TIMEOUT_S) == Error::NOT_BOUND; }));
    expectBindableAgain();
}

TEST_F(AWaitForABinding, FailsWhenItIsUnboundBeforeTheServersTimeIsKnown) {
    server.withdrawTime();
    startWaiting("timeSync");
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    waiting->join();
    EXPECT_EQ(result, Error::NOT_SYNCHRONIZED);
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::SUCCESS)));
    EXPECT_EQ(server.unbindings.count(), 1U);
    expectBindableAgain();
}

TEST_F(AWaitForABinding, GoesOnWhenTheServerDoesNotUnbind) {
    server.withdrawTime();
    server.unbindings.setAnswer(replying(6));
    startWaiting("timeSync");
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::BUSY);
    server.offerTime();
    waiting->join();
    EXPECT_EQ(result, Error::SUCCESS);
    expectBound();
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::BUSY), bound(Error::SUCCESS)));
}

} // namespace
