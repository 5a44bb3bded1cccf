// Bindings that fail without a thread, or are interrupted by another thread.

#include "services/binder_fixture.hpp"
#include "support/allocations.hpp"

#include <system_error>

namespace {

using support::InterruptedAllocation;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

/// Only so many timers can start a thread.
class ABindingWithoutAThread : public AProxyOnAScript {
protected:
    static void limitThreads(int available = 0) {
        manual_timer::onRestart([left = std::make_shared<int>(available)] {
            if (--*left < 0) {
                throw std::system_error(
                    std::make_error_code(std::errc::resource_unavailable_try_again));
            }
        });
    }
    void expectUsable() {
        expectUnbound();
        manual_timer::reset();
        bind();
        expectBound();
    }
};

TEST_F(ABindingWithoutAThread, Fails) {
    limitThreads();
    EXPECT_THROW(static_cast<void>(proxy->bind(server, LONG_TIMEOUT_S)), std::system_error);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::FAILED)));
    EXPECT_THAT(requests("bind"), IsEmpty());
    expectUsable();
}

TEST_F(ABindingWithoutAThread, FailsWhenTheTimeCannotBeRead) {
    limitThreads(1);
    ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::NOT_SYNCHRONIZED)));
    expectUsable();
}

TEST_F(ABindingWithoutAThread, CanBeUnboundAfterACallThatCannotReadTheTime) {
    limitThreads();
    EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), Error::NOT_SYNCHRONIZED);
    EXPECT_THAT(recorder.calls(), IsEmpty());
    manual_timer::reset();
    ASSERT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::SUCCESS)));
    expectUsable();
}

/// Another thread unbinds during each allocation in turn.
class ABindingInterrupted : public AProxyOnAScript {};

TEST_F(ABindingInterrupted, IsCalledOffOrHasNotBegun) {
    standIn->setHook(Operation::PUBLISH, {}); // which would allocate
    bool interrupted = true;
    for (std::size_t which = 1; interrupted; ++which) {
        SCOPED_TRACE(which);
        Error result = Error::FAILED;
        std::unique_ptr<BlockingThread> other;
        {
            InterruptedAllocation const allocation(which, [&] {
                other = std::make_unique<BlockingThread>([&] { result = proxy->unbindSync(0); });
                EXPECT_TRUE(other->isBlockedOrReturns());
            });
            ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
            interrupted = allocation.happened();
        }
        other.reset();
        if (result != Error::SUCCESS) {
            EXPECT_THAT(result, AnyOf(Error::NOT_BOUND, Error::FAILED));
            EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
        }
        expectUnbound();
    }
    EXPECT_THAT(recorder.calls(), testing::Contains(bound(Error::CANCELLED)));
}

} // namespace
