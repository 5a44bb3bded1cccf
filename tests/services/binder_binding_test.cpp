#include "services/binder_frame.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

class ABinding : public WithAServer {};

TEST_F(ABinding, IsNotThereAtFirst) {
    expectFree();
    EXPECT_THAT(recorder.events(), IsEmpty());
}

TEST_F(ABinding, IsThereWhenTheCallReturns) {
    EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
    EXPECT_EQ(recorder.lastThread(), std::this_thread::get_id());
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    expectBound();
}

TEST_F(ABinding, IsThereWhenTheListenerIsTold) {
    support::Watched<bool> synchronized;
    recorder.setHook([&](auto const&) {
        synchronized.change([&](bool& value) { value = proxy->isTimeBaseSynchronized(); });
    });
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    expectBound();
    EXPECT_TRUE(synchronized.waitFor([](bool value) { return value; }));
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
    EXPECT_NE(recorder.lastThread(), std::this_thread::get_id());
}

TEST_F(ABinding, NeedsNoListener) {
    Proxy silent(*mqtt, PLANT, DESK, id, PANEL, nullptr);
    EXPECT_EQ(silent.bindSync(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(silent.unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(silent.bind(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_TRUE(support::eventually([&] { return silent.isTimeBaseSynchronized(); }));
}

TEST_F(ABinding, TellsTheServerWhoAsksAndForWhat) {
    std::string topic;
    server.bindings.setAnswer([&](auto const& data, auto&) {
        topic = dynamic_cast<mqtt::BindRequestData const&>(data).topic.text();
        return nullptr;
    });
    bind();
    ASSERT_EQ(server.bindings.count(), 1U);
    EXPECT_EQ(server.bindings.asked()[0].clientUuid, id);
    EXPECT_EQ(server.bindings.asked()[0].name, "bind");
    EXPECT_EQ(topic, PANEL.text());
}

TEST_F(ABinding, IsThereWhenTheServerSaysItAlreadyWas) {
    server.bindings.setAnswer(saying(21));
    EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    expectBound();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(3));
    expectBound();
    EXPECT_THAT(recorder.events(),
                ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS), bound(Error::SUCCESS)));
}

TEST_F(ABinding, IsThereWhenTheServerSaysSuccessInItsOwnWords) {
    server.bindings.setAnswer(saying(16));
    EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    expectBound();
}

TEST_F(ABinding, TakesAsLongAsTheServersTimeIsNotKnown) {
    server.withdrawTime();
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    awaitRequest("timeSync");
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::BUSY);
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    // It asks again, without being told to.
    server.offerTime();
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
    expectBound();
}

TEST_F(ABinding, IsOneAtATime) {
    server.ignoreBindings();
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::BUSY);
    EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::BUSY);
    settle();
    EXPECT_EQ(requests("bind"), 1U);
    EXPECT_THAT(recorder.events(), IsEmpty());
}

TEST_F(ABinding, IsMadeOnce) {
    bind();
    expectBound();
    settle();
    EXPECT_EQ(requests("bind"), 1U);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
}

TEST_F(ABinding, MayFollowFromInsideTheListener) {
    recorder.setHook([&](BindingEvent const& event) {
        if (recorder.count() > 4) {
            return;
        }
        auto const next =
            event.first == "bound" ? proxy->unbind(AN_HOUR) : proxy->bind(server.id, AN_HOUR);
        EXPECT_EQ(next, Error::SUCCESS);
    });
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(5));
    expectBound();
    EXPECT_THAT(recorder.events(),
                ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS), bound(Error::SUCCESS),
                            unbound(Error::SUCCESS), bound(Error::SUCCESS)));
}

/// Once waiting and once with a listener.
class ABindingThatFails : public WithAServer {
protected:
    void expectFailure(Error error, conv::SecondsDuration const& timeout = AN_HOUR) {
        auto const before = recorder.count();
        EXPECT_EQ(proxy->bindSync(server.id, timeout), error);
        expectFree();
        EXPECT_EQ(proxy->bind(server.id, timeout), Error::SUCCESS);
        ASSERT_TRUE(recorder.waitForCount(before + 2));
        expectFree();
        auto const events = recorder.events();
        EXPECT_EQ(events.size(), before + 2);
        EXPECT_EQ(events[before], bound(error));
        EXPECT_EQ(events[before + 1], bound(error));
    }
};

TEST_F(ABindingThatFails, SaysWhatTheServerSaid) {
    struct Case {
        int code;
        int error;
    };
    for (auto const& [code, error] : std::vector<Case>{{0, 1},
                                                       {2, 4},
                                                       {3, 3},
                                                       {4, 4},
                                                       {5, 1},
                                                       {6, 2},
                                                       {7, 9},
                                                       {8, 1},
                                                       {15, 1},
                                                       {17, 1},
                                                       {20, 4},
                                                       {22, 6},
                                                       {23, 7},
                                                       {24, 8},
                                                       {25, 9},
                                                       {26, 10},
                                                       {255, 239}}) {
        SCOPED_TRACE("code " + std::to_string(code));
        server.bindings.setAnswer(saying(code));
        expectFailure(static_cast<Error>(error));
    }
    settle();
    EXPECT_EQ(requests("timeSync"), 0U);
}

TEST_F(ABindingThatFails, SaysThatNobodyServesIt) {
    server.leaveBindingsToNobody();
    expectFailure(Error::NO_SERVER);
}

TEST_F(ABindingThatFails, SaysThatNobodyAnswers) {
    server.ignoreBindings();
    expectFailure(Error::TIMEOUT, 0);
}

TEST_F(ABindingThatFails, LeavesTheNextOneFree) {
    server.bindings.setAnswer(saying(23));
    expectFailure(Error::REFUSED);
    server.bindings.setAnswer({});
    bind();
    expectBound();
}

/// An earlier request is still under way, whatever the base thinks.
TEST_F(ABindingThatFails, IsEndedWhenItsRequestCannotBeSent) {
    server.ignoreBindings();
    DerivedProxy derived(*mqtt, id, &recorder);
    EXPECT_EQ(derived.bind(server.id, AN_HOUR), Error::SUCCESS);
    derived.endBinding(Error::FAILED);
    EXPECT_EQ(derived.bind(server.id, AN_HOUR), Error::BUSY);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::FAILED), bound(Error::BUSY)));
    settle();
    EXPECT_EQ(requests("bind"), 1U);
    EXPECT_EQ(derived.unbind(AN_HOUR), Error::NOT_BOUND);
    server.serveBindings();
    EXPECT_EQ(derived.bindSync(server.id, AN_HOUR), Error::SUCCESS);
}

TEST_F(ABindingThatFails, IsEndedWhenItsBlockingRequestCannotBeSent) {
    server.ignoreBindings();
    DerivedProxy derived(*mqtt, id, &recorder);
    EXPECT_EQ(derived.bind(server.id, AN_HOUR), Error::SUCCESS);
    derived.endBinding(Error::FAILED);
    EXPECT_EQ(derived.bindSync(server.id, AN_HOUR), Error::BUSY);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::FAILED), bound(Error::BUSY)));
    EXPECT_EQ(derived.unbind(AN_HOUR), Error::NOT_BOUND);
}

} // namespace
