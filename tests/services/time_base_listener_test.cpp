// What a listener may do from inside its call, and who waits for it.

#include "requestreply/blocking_thread.hpp"
#include "services/time_base_frame.hpp"
#include "support/manual_timer.hpp"

#include <atomic>
#include <utility>

namespace {

bool isSet(bool value) {
    return value;
}

void set(support::Watched<bool>& flag) {
    flag.change([](bool& value) { value = true; });
}

class InsideTheCallOfATimeListener : public TimeBaseOnABroker {
protected:
    /// Does this in the first call.
    template <class Action>
    void inside(Action action) {
        TimeListener acting([&, first = true]() mutable {
            if (std::exchange(first, false)) {
                action();
                set(done);
            }
        });
        proxy->registerListener(&acting);
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(1, SAMPLES, 5.0);
        ASSERT_TRUE(done.waitFor(isSet));
        receiveAll();
        if (proxy) {
            proxy->registerListener(&listener);
        }
    }

    support::Watched<bool> done;
};

TEST_F(InsideTheCallOfATimeListener, TheProxyMayBeDestroyed) {
    inside([&] { proxy.reset(); });
    EXPECT_EQ(requestCount(), 10U);
}

TEST_F(InsideTheCallOfATimeListener, TheProxyMayBeReplaced) {
    inside([&] {
        proxy.reset();
        proxy = makeProxy();
        EXPECT_TRUE(proxy->startSync(server));
    });
    answerAll(11, SAMPLES, 5.0);
    EXPECT_TRUE(listener.isTold());
}

TEST_F(InsideTheCallOfATimeListener, TheProxyMayBeStopped) {
    inside([&] { EXPECT_TRUE(proxy->stop()); });
    EXPECT_FALSE(proxy->isSynchronized());
    EXPECT_FALSE(manual_timer::record().armed);
}

TEST_F(InsideTheCallOfATimeListener, TheProxyMayBeStartedAnew) {
    inside([&] {
        EXPECT_FALSE(proxy->startSync(server));
        EXPECT_TRUE(proxy->stop());
        EXPECT_TRUE(proxy->startSync(support::uniqueId()));
    });
    answerAll(11, SAMPLES, 7.0);
    ASSERT_TRUE(listener.isTold());
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

TEST_F(InsideTheCallOfATimeListener, AWaitEndsAtOnceWhenThereIsNothingToWaitFor) {
    inside([&] {
        EXPECT_FALSE(proxy->synchronize(server, AN_HOUR)) << "it is active";
        proxy->stop();
        EXPECT_FALSE(proxy->synchronize(server, 0));
    });
    EXPECT_FALSE(proxy->isSynchronized());
}

TEST_F(InsideTheCallOfATimeListener, TheProxyMayBeTerminated) {
    inside([&] { proxy->terminate(); });
    EXPECT_FALSE(proxy->startSync(server));
}

TEST_F(InsideTheCallOfATimeListener, TheTimeMayBeForced) {
    inside([&] { proxy->forceSync(); });
    answer(11, 100.0);
    EXPECT_TRUE(support::eventually([&] { return proxy->offset() != 0.0; }));
    EXPECT_NEAR(proxy->offset(), 3.874204890, 1e-9);
}

TEST_F(InsideTheCallOfATimeListener, AnotherMayTakeItsPlace) {
    inside([&] { proxy->registerListener(nullptr); });
    EXPECT_TRUE(proxy->isSynchronized());
}

/// Its call lasts until the test lets it go.
class ASlowTimeListener : public TimeBaseOnABroker {
protected:
    ASlowTimeListener() {
        proxy->registerListener(&slow);
        EXPECT_TRUE(proxy->startSync(server));
        answerAll(1, SAMPLES, 5.0);
        EXPECT_TRUE(slow.isTold());
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
    TimeListener slow{[this] {
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

TEST_F(ASlowTimeListener, IsWaitedForByADestruction) {
    expectToWait([&] { proxy.reset(); });
}

TEST_F(ASlowTimeListener, KeepsNobodyElseWaiting) {
    EXPECT_EQ(proxy->timeBase(), 995U);
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_FALSE(proxy->startSync(server));
    EXPECT_FALSE(proxy->synchronize(server, AN_HOUR));
    proxy->forceSync();
    proxy->registerListener(nullptr);
    EXPECT_FALSE(left);
}

} // namespace
