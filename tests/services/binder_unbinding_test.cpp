// Unbindings, which also call off a binding under way.

#include "services/binder_fixture.hpp"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

using Error = BinderError;

class AnUnbinding : public AProxyOnAScript {
protected:
    void expectOver(std::size_t events) {
        ASSERT_TRUE(recorder.waitForCount(events));
        EXPECT_EQ(recorder.count(), events);
        EXPECT_EQ(recorder.calls().back(), unbound(Error::SUCCESS));
        expectUnbound();
    }
};

TEST_F(AnUnbinding, RefusesEverythingElseMeanwhile) {
    ignore("unbind");
    bind();
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(requests("unbind").size(), 1U);
    EXPECT_EQ(recorder.count(), 1U);
    EXPECT_TRUE(proxy->isTimeBaseSynchronized()) << "until the server has answered";
}

TEST_F(AnUnbinding, IsOverUnlessTheServerIsBusyOrMissing) {
    using Case = std::pair<int, Error>;
    for (auto const& [code, error] :
         {Case(0, Error::SUCCESS), Case(1, Error::SUCCESS), Case(3, Error::SUCCESS),
          Case(4, Error::NO_SERVER), Case(6, Error::BUSY), Case(17, Error::SUCCESS),
          Case(18, Error::BUSY), Case(20, Error::NO_SERVER), Case(255, Error::SUCCESS)}) {
        for (bool const waits : {true, false}) {
            SCOPED_TRACE(code);
            bind();
            answer("unbind", code);
            auto const before = recorder.count();
            EXPECT_EQ(waits ? proxy->unbindSync(LONG_TIMEOUT_S) : proxy->unbind(LONG_TIMEOUT_S),
                      waits ? error : Error::SUCCESS);
            ASSERT_TRUE(recorder.waitForCount(before + 1));
            EXPECT_EQ(recorder.calls().back(), unbound(error));
            EXPECT_EQ(recorder.lastThread() == std::this_thread::get_id(), waits);
            if (error != Error::SUCCESS) {
                expectBound();
                answer("unbind");
                EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
            }
            expectUnbound();
        }
    }
}

TEST_F(AnUnbinding, IsOverWithoutAnAnswerOrWhenItIsCancelled) {
    ignore("unbind");
    proxy->cancelUnbinding(); // there is none yet
    bind();
    EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
    expectOver(2);
    bind();
    EXPECT_EQ(proxy->unbind(7), Error::SUCCESS);
    EXPECT_EQ(manual_timer::record(1).period, std::chrono::seconds(7));
    proxy->cancelUnbinding();
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    expectOver(4);
    bind();
    BlockingThread caller([&] { EXPECT_EQ(proxy->unbindSync(NO_TIME_LIMIT), Error::SUCCESS); });
    awaitRequest("unbind", 3);
    ASSERT_TRUE(caller.isBlocked());
    proxy->cancelUnbinding();
    caller.join();
    expectOver(6);
}

/// A binding under way is called off by an unbinding.
class ABindingCalledOff : public AProxyOnAScript {
protected:
    ABindingCalledOff() { ignore("bind"); }

    void startBinding() { EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS); }
};

TEST_F(ABindingCalledOff, IsNotRevivedByItsReply) {
    ignore("unbind");
    startBinding();
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED)));
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    reply("bind");
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED)));
    reply("unbind");
    reply("bind");
    expectUnbound();
    EXPECT_THAT(requests("timeSync"), testing::IsEmpty());
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
}

TEST_F(ABindingCalledOff, IsOverAlsoWhenTheServerIsBusy) {
    answer("unbind", 6);
    startBinding();
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED), unbound(Error::BUSY)));
    expectUnbound();
}

TEST_F(ABindingCalledOff, LetsItsListenerTerminate) {
    recorder.setHook([&](auto const&) { proxy->terminate(); });
    startBinding();
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::CANCELLED);
    EXPECT_THAT(requests("unbind"), testing::IsEmpty());
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED)));
}

TEST_F(ABindingCalledOff, LetsItsListenerCancelTheUnbindingToo) {
    recorder.setHook([&](BindingEvent const& event) {
        if (event.first == "bound") {
            proxy->cancelUnbinding();
        }
    });
    for (bool const waits : {false, true}) {
        startBinding();
        EXPECT_EQ(waits ? proxy->unbindSync(LONG_TIMEOUT_S) : proxy->unbind(LONG_TIMEOUT_S),
                  Error::SUCCESS);
        EXPECT_EQ(recorder.calls().back(), unbound(Error::SUCCESS));
    }
    EXPECT_EQ(recorder.count(), 4U);
    EXPECT_THAT(requests("unbind"), testing::IsEmpty());
    expectUnbound();
}

/// A thread inside bindSync.
class AWaitForABinding : public AProxyOnAScript {
protected:
    void startWaiting(std::string const& unanswered) {
        ignore(unanswered);
        waiting = std::make_unique<BlockingThread>(
            [this] { result = proxy->bindSync(server, LONG_TIMEOUT_S); });
        awaitRequest(unanswered);
        ASSERT_TRUE(waiting->isBlocked());
    }

    Error result = Error::SUCCESS;
    std::unique_ptr<BlockingThread> waiting;
};

TEST_F(AWaitForABinding, IsCancelledByAnUnbinding) {
    startWaiting("bind");
    EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    waiting->join();
    EXPECT_EQ(result, Error::CANCELLED);
    // Two threads call the listener.
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.calls(),
                UnorderedElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    answer("bind");
    bind();
}

TEST_F(AWaitForABinding, FailsWhenItIsUnboundBeforeTheServersTimeIsKnown) {
    startWaiting("timeSync");
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    waiting->join();
    EXPECT_EQ(result, Error::NOT_SYNCHRONIZED);
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::SUCCESS)));
    expectUnbound();
    answer("timeSync");
    bind();
}

TEST_F(AWaitForABinding, GoesOnWhenTheServerDoesNotUnbind) {
    answer("unbind", 6);
    startWaiting("timeSync");
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::BUSY);
    answer("timeSync");
    reply("timeSync");
    waiting->join();
    EXPECT_EQ(result, Error::SUCCESS);
    expectBound();
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::BUSY), bound(Error::SUCCESS)));
}

} // namespace
