// What a listener may do inside its call, and which operations wait for it.

#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <atomic>

namespace {

using mqtt::test::isSet;

class InsideTheCallOfATimeListener : public TimeBaseOnABroker {
protected:
    void synchronizeWith(TimeListener& acting) {
        proxy->registerListener(&acting);
        auto const first = requestCount() + 1;
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(first, SAMPLES, 5.0);
        ASSERT_TRUE(acting.waitForCount(1));
    }
};

/// The listener may have to wait for the other thread, which waits for the call.
TEST_F(InsideTheCallOfATimeListener, ATerminationEndsTheWaitOfAnotherThreadForTheCall) {
    for (bool const terminates : {false, true}) {
        SCOPED_TRACE(terminates);
        proxy = makeProxy();
        mqtt::test::Watched<bool> otherWaits;
        mqtt::test::Watched<bool> otherReturned;
        TimeListener acting([&](auto const&) {
            EXPECT_TRUE(otherWaits.waitFor(isSet));
            proxy->terminate();
            EXPECT_TRUE(otherReturned.waitFor(isSet));
        });
        synchronizeWith(acting);
        BlockingThread other([&] {
            terminates ? proxy->terminate() : static_cast<void>(proxy->stop());
            set(otherReturned);
        });
        ASSERT_TRUE(other.isBlocked());
        set(otherWaits);
        receiveAll();
    }
}

using ATimeListener = TimeBaseOnABroker;

TEST_F(ATimeListener, IsWaitedForByAStopAndByTheFirstTermination) {
    mqtt::test::Watched<bool> mayLeave;
    std::atomic<bool> left{false};
    TimeListener slow([&](auto const&) {
        mayLeave.waitFor(isSet);
        left = true;
    });
    proxy->registerListener(&slow);
    ASSERT_TRUE(proxy->startSync(server));
    answerAll(1, SAMPLES, 5.0);
    ASSERT_TRUE(slow.waitForCount(1));
    BlockingThread stop([&] {
        proxy->stop();
        EXPECT_TRUE(left);
    });
    ASSERT_TRUE(stop.isBlocked());
    BlockingThread termination([&] {
        proxy->terminate();
        EXPECT_TRUE(left);
    });
    ASSERT_TRUE(termination.isBlocked());
    proxy->terminate();
    EXPECT_FALSE(left) << "the second termination has waited";
    set(mayLeave);
}

} // namespace
