#include "services/binder_frame.hpp"

#include "support/timeout_factor.hpp"
#include "support/watchdog.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Error = BinderError;

class AnUnbinding : public WithAServer {};

TEST_F(AnUnbinding, IsOverWhenTheCallReturns) {
    bind();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS)));
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    EXPECT_EQ(server.unbindings.count(), 1U);
    EXPECT_EQ(server.unbindings.asked()[0].clientUuid, id);
    expectFree();
}

TEST_F(AnUnbinding, IsOverWhenTheListenerIsTold) {
    bind();
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS)));
    EXPECT_NE(recorder.lastThread(), std::this_thread::get_id());
    expectFree();
}

TEST_F(AnUnbinding, IsOneAtATime) {
    server.ignoreUnbindings();
    bind();
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::BUSY);
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::BUSY);
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::BUSY);
    EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::BUSY);
    settle();
    EXPECT_EQ(requests("unbind"), 1U);
    EXPECT_EQ(recorder.count(), 1U);
    EXPECT_TRUE(proxy->isTimeBaseSynchronized()) << "until the server has answered";
}

/// The server is busy or not there: nothing has changed.
TEST_F(AnUnbinding, ChangesNothingWhenItFails) {
    struct Case {
        int code;
        Error error;
    };
    bind();
    for (auto const& [code, error] : std::vector<Case>{{2, Error::NO_SERVER},
                                                       {4, Error::NO_SERVER},
                                                       {6, Error::BUSY},
                                                       {18, Error::BUSY},
                                                       {20, Error::NO_SERVER}}) {
        SCOPED_TRACE("code " + std::to_string(code));
        auto const before = recorder.count();
        server.unbindings.setAnswer(saying(code));
        EXPECT_EQ(proxy->unbindSync(AN_HOUR), error);
        expectBound();
        EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
        ASSERT_TRUE(recorder.waitForCount(before + 2));
        expectBound();
        EXPECT_EQ(recorder.events()[before], unbound(error));
        EXPECT_EQ(recorder.events()[before + 1], unbound(error));
    }
    server.unbindings.setAnswer({});
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    expectFree();
}

TEST_F(AnUnbinding, IsOverWhateverElseTheServerSays) {
    for (int const code : {0, 1, 3, 5, 7, 8, 15, 16, 17, 19, 21, 22, 23, 24, 25, 255}) {
        SCOPED_TRACE("code " + std::to_string(code));
        server.unbindings.setAnswer(saying(code));
        bind();
        EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
        EXPECT_EQ(recorder.events().back(), unbound(Error::SUCCESS));
        expectFree();
        bind();
        auto const before = recorder.count();
        EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
        ASSERT_TRUE(recorder.waitForCount(before + 1));
        EXPECT_EQ(recorder.events().back(), unbound(Error::SUCCESS));
        expectFree();
    }
}

TEST_F(AnUnbinding, IsOverWhenNobodyAnswers) {
    server.ignoreUnbindings();
    bind();
    EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
    expectFree();
    bind();
    EXPECT_EQ(proxy->unbind(0), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(4));
    expectFree();
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS),
                                               bound(Error::SUCCESS), unbound(Error::SUCCESS)));
}

TEST_F(AnUnbinding, IsOverWhenItIsCancelled) {
    server.ignoreUnbindings();
    proxy->cancelUnbinding(); // there is none yet
    bind();
    EXPECT_EQ(proxy->unbind(conv::SecondsDuration::NO_TIMEOUT), Error::SUCCESS);
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::BUSY);
    proxy->cancelUnbinding();
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS)));
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    expectFree();
    bind();
    expectBound();
}

TEST_F(AnUnbinding, IsOverWhenItIsCancelledWhileACallWaits) {
    server.ignoreUnbindings();
    bind();
    BlockingThread caller(
        [&] { EXPECT_EQ(proxy->unbindSync(conv::SecondsDuration::NO_TIMEOUT), Error::SUCCESS); });
    awaitRequest("unbind");
    ASSERT_TRUE(caller.isBlocked());
    proxy->cancelUnbinding();
    caller.join();
    EXPECT_EQ(recorder.events().back(), unbound(Error::SUCCESS));
    expectFree();
}

TEST_F(AnUnbinding, LetsTheListenerBindAgain) {
    recorder.setHook([&](BindingEvent const& event) {
        if (event.first == "unbound") {
            EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
        }
    });
    bind();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(3));
    expectBound();
}

/// A binding under way is called off.
class ABindingCalledOff : public WithAServer {
protected:
    void startBinding() {
        EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
        request = awaitRequest("bind");
    }

    /// The server agrees after all.
    void replyLate() {
        peer.publish(replyTopicFor(request.topic), replyText(idIn(request.payload), 1));
        settle();
    }

    support::Message request;
};

TEST_F(ABindingCalledOff, IsToldAsCancelledBeforeItIsUnbound) {
    server.ignoreBindings();
    startBinding();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    expectFree();
}

TEST_F(ABindingCalledOff, IsToldAsCancelledByTheCallThatDoesNotWait) {
    server.ignoreBindings();
    std::thread::id cancelledOn;
    recorder.setHook([&](BindingEvent const& event) {
        if (event.first == "bound") {
            cancelledOn = std::this_thread::get_id();
        }
    });
    startBinding();
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(recorder.events().front(), bound(Error::CANCELLED));
    EXPECT_EQ(cancelledOn, std::this_thread::get_id());
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    expectFree();
}

TEST_F(ABindingCalledOff, IsOverForAServerThatIsBusyToo) {
    server.ignoreBindings();
    server.unbindings.setAnswer(saying(6));
    startBinding();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::BUSY);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED), unbound(Error::BUSY)));
    expectFree();
}

TEST_F(ABindingCalledOff, IsNotRevivedByItsReply) {
    server.ignoreBindings();
    startBinding();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    replyLate();
    expectFree();
    EXPECT_EQ(requests("timeSync"), 0U);
    EXPECT_EQ(recorder.count(), 2U);
}

TEST_F(ABindingCalledOff, IsNotRevivedByItsReplyBeforeTheServerHasUnbound) {
    server.ignoreBindings();
    server.ignoreUnbindings();
    startBinding();
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    awaitRequest("unbind");
    replyLate();
    EXPECT_EQ(requests("timeSync"), 0U);
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED)));
}

TEST_F(ABindingCalledOff, MayWaitForTheServersTime) {
    server.withdrawTime();
    startBinding();
    awaitRequest("timeSync");
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_THAT(recorder.events(), ElementsAre(unbound(Error::SUCCESS)));
    expectFree();
    server.offerTime();
    bind();
    expectBound();
}

TEST_F(ABindingCalledOff, LetsItsListenerTerminate) {
    server.ignoreBindings();
    recorder.setHook([&](auto const&) { proxy->terminate(); });
    startBinding();
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::CANCELLED);
    settle();
    EXPECT_EQ(requests("unbind"), 0U);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED)));
}

TEST_F(ABindingCalledOff, LetsItsListenerCancelTheUnbindingToo) {
    server.ignoreBindings();
    recorder.setHook([&](BindingEvent const& event) {
        if (event.first == "bound") {
            proxy->cancelUnbinding();
        }
    });
    startBinding();
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    startBinding();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(recorder.count(), 4U);
    settle();
    EXPECT_EQ(requests("unbind"), 0U);
    expectFree();
}

/// The same for those who wait.
class AWaitForABinding : public WithAServer {
protected:
    void startWaiting() {
        waiting = std::make_unique<BlockingThread>(
            [this] { result = proxy->bindSync(server.id, AN_HOUR); });
    }

    void expectBindableAgain() {
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
    startWaiting();
    awaitRequest("bind");
    ASSERT_TRUE(waiting->isBlocked());
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    waiting->join();
    EXPECT_EQ(result, Error::CANCELLED);
    EXPECT_TRUE(support::eventually([&] { return proxy->unbind(AN_HOUR) == Error::NOT_BOUND; }));
    // Each is told on a thread of its own.
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.events(),
                UnorderedElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    expectBindableAgain();
}

TEST_F(AWaitForABinding, IsCancelledByAnUnbindingThatWaits) {
    server.ignoreBindings();
    startWaiting();
    awaitRequest("bind");
    ASSERT_TRUE(waiting->isBlocked());
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    waiting->join();
    EXPECT_EQ(result, Error::CANCELLED);
    expectFree();
    expectBindableAgain();
}

TEST_F(AWaitForABinding, FailsWhenTheServersTimeIsStillUnknownAtItsUnbinding) {
    server.withdrawTime();
    startWaiting();
    awaitRequest("timeSync");
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    waiting->join();
    EXPECT_EQ(result, Error::NOT_SYNCHRONIZED);
    EXPECT_THAT(recorder.events(), ElementsAre(unbound(Error::SUCCESS)));
    EXPECT_EQ(server.unbindings.count(), 1U);
    expectFree();
    expectBindableAgain();
}

TEST_F(AWaitForABinding, GoesOnWhenTheServerDoesNotUnbind) {
    server.withdrawTime();
    server.unbindings.setAnswer(saying(6));
    startWaiting();
    awaitRequest("timeSync");
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::BUSY);
    server.offerTime();
    waiting->join();
    EXPECT_EQ(result, Error::SUCCESS);
    expectBound();
    EXPECT_THAT(recorder.events(), ElementsAre(unbound(Error::BUSY), bound(Error::SUCCESS)));
}

/// From before the server knows to after the binding is there.
class BindingAndUnbindingAtAnyMoment : public WithAServer {
protected:
    static constexpr int ROUNDS = 200 / support::TIMEOUT_FACTOR;

    BindingAndUnbindingAtAnyMoment() { support::Watchdog::limit(std::chrono::seconds(240)); }

    static void spend(int round) {
        auto const moment =
            std::chrono::steady_clock::now() + std::chrono::microseconds(40 * (round % 100));
        while (std::chrono::steady_clock::now() < moment) {
            std::this_thread::yield();
        }
    }
};

TEST_F(BindingAndUnbindingAtAnyMoment, LeavesTheProxyFree) {
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
        spend(round * support::TIMEOUT_FACTOR);
        ASSERT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
        expectFree();
    }
    bind();
    expectBound();
}

TEST_F(BindingAndUnbindingAtAnyMoment, EndsEachWithItsListenerTold) {
    for (int round = 0; round < ROUNDS; ++round) {
        auto const before = recorder.count();
        ASSERT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
        spend(round * support::TIMEOUT_FACTOR);
        ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
        ASSERT_TRUE(support::eventually([&] {
            return recorder.count() > before && recorder.events().back().first == "unbound";
        }));
        expectFree();
        EXPECT_LE(recorder.count(), before + 2);
    }
}

TEST_F(BindingAndUnbindingAtAnyMoment, IsNoDangerForTheNextBinding) {
    BindServer other(broker, support::uniqueId(), 1000000);
    for (int round = 0; round < ROUNDS / 4; ++round) {
        ASSERT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
        spend(round * 4 * support::TIMEOUT_FACTOR);
        // Nobody waits for the server: its reply to the binding may be under way.
        ASSERT_EQ(proxy->unbindSync(0), Error::SUCCESS);
        ASSERT_EQ(proxy->bindSync(other.id, AN_HOUR), Error::SUCCESS) << "in round " << round;
        ASSERT_TRUE(isTimeOf(other, proxy->timeBase())) << "in round " << round;
        ASSERT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    }
}

} // namespace
