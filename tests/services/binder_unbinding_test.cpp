// Unbindings, which also call off a binding under way.

#include "services/binder_fixture.hpp"

namespace {

using testing::ElementsAre;

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
    EXPECT_TRUE(proxy->isTimeBaseSynchronized()) << "until the server has answered";
    proxy->cancelUnbinding();
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
    reply("bind");
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED)));
    reply("unbind");
    reply("bind");
    expectUnbound();
    EXPECT_THAT(requests("timeSync"), testing::IsEmpty());
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
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

/// A thread inside bindSync, which waits for the server's time.
class AWaitForABinding : public AProxyOnAScript {
protected:
    void startWaiting() {
        ignore("timeSync");
        waiting = std::make_unique<BlockingThread>(
            [this] { result = proxy->bindSync(server, LONG_TIMEOUT_S); });
        awaitRequest("timeSync");
        ASSERT_TRUE(waiting->isBlocked());
    }

    Error result = Error::SUCCESS;
    std::unique_ptr<BlockingThread> waiting;
};

TEST_F(AWaitForABinding, FailsWhenItIsUnbound) {
    startWaiting();
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
    startWaiting();
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::BUSY);
    answer("timeSync");
    reply("timeSync");
    waiting->join();
    EXPECT_EQ(result, Error::SUCCESS);
    expectBound();
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::BUSY), bound(Error::SUCCESS)));
}

} // namespace
