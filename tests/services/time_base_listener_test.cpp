// What a listener may do inside its call, and which operations wait for it.

#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <atomic>

namespace {

using support::isSet;

class InsideTheCallOfATimeListener : public TimeBaseOnABroker {
protected:
    /// Does this in the first call.
    template <class Action>
    void inside(Action action) {
        TimeListener acting([&](auto const&) {
            if (!done.copy()) {
                action();
                set(done);
            }
        });
        proxy->registerListener(&acting);
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(1, SAMPLES, 5.0);
        ASSERT_TRUE(done.waitFor(isSet));
        receiveAll();
        proxy->registerListener(&listener);
    }

    support::Watched<bool> done;
};

TEST_F(InsideTheCallOfATimeListener, TheProxyMayBeStoppedAndTerminated) {
    inside([&] {
        proxy->registerListener(nullptr);
        EXPECT_TRUE(proxy->stop());
        proxy->terminate();
    });
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_FALSE(manual_timer::record().armed);
    EXPECT_FALSE(proxy->startSync(server));
}

TEST_F(InsideTheCallOfATimeListener, TheProxyMayBeStartedAnew) {
    inside([&] {
        EXPECT_FALSE(proxy->startSync(server));
        EXPECT_FALSE(proxy->synchronize(server, LONG_TIMEOUT_S)) << "it is active";
        EXPECT_TRUE(proxy->stop());
        EXPECT_TRUE(proxy->startSync(support::uniqueId()));
    });
    answerAll(11, SAMPLES, 7.0);
    ASSERT_TRUE(listener.waitForCount(1));
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

/// Its call lasts until the test ends it.
class ASlowTimeListener : public TimeBaseOnABroker {
protected:
    ASlowTimeListener() {
        proxy->registerListener(&slow);
        EXPECT_TRUE(proxy->startSync(server));
        answerAll(1, SAMPLES, 5.0);
        EXPECT_TRUE(slow.waitForCount(1));
    }
    ~ASlowTimeListener() override {
        set(mayLeave);
        proxy.reset();
    }

    /// Does this on another thread, where it lasts until the listener's call ends.
    template <class Action>
    void expectToWait(Action action) {
        BlockingThread sleeper([&] {
            action();
            EXPECT_TRUE(left) << "too early";
        });
        EXPECT_TRUE(sleeper.isBlocked());
        set(mayLeave);
    }

    support::Watched<bool> mayLeave;
    std::atomic<bool> left{false};
    TimeListener slow{[this](auto const&) {
        mayLeave.waitFor(isSet);
        left = true;
    }};
};

TEST_F(ASlowTimeListener, IsWaitedForByAStop) {
    expectToWait([&] { proxy->stop(); });
}

TEST_F(ASlowTimeListener, IsWaitedForByATermination) {
    expectToWait([&] { proxy->terminate(); });
}

TEST_F(ASlowTimeListener, IsNotWaitedForByOtherOperations) {
    EXPECT_EQ(proxy->timeBase(), 995U);
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_FALSE(proxy->startSync(server));
    EXPECT_FALSE(proxy->synchronize(server, LONG_TIMEOUT_S));
    proxy->forceSync();
    proxy->registerListener(nullptr);
    EXPECT_FALSE(left);
}

} // namespace
