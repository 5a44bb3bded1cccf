// Tests that wait half a minute for a real timer.

#include "services/binder_fixture.hpp"
#include "services/time_base_fixture.hpp"
#include "support/watchdog.hpp"

#include <chrono>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

class AServerWithoutATime : public ProxyAndServer {};

TEST_F(AServerWithoutATime, LeavesABindingOpenAfterThirtySeconds) {
    support::Watchdog::limit(seconds(240));
    server.withdrawTime();
    auto const start = steady_clock::now();
    EXPECT_EQ(proxy->bindSync(server.id, LONG_TIMEOUT_S), Error::NOT_SYNCHRONIZED);
    EXPECT_GE(steady_clock::now() - start, seconds(30));
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_EQ(proxy->bind(server.id, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(server.unbindings.count(), 1U);
    EXPECT_THAT(recorder.events(), ElementsAre(unbound(Error::SUCCESS)));
    expectUnbound();
    server.offerTime();
    bind();
    expectBound();
}

class APeriodicSample : public TimeBaseOnABroker {};

TEST_F(APeriodicSample, IsTakenEvery30SecondsByARealTimer) {
    constexpr seconds deadline{240};
    support::Watchdog::limit(deadline + seconds(60));
    auto const start = steady_clock::now();
    synchronize(5.0);
    ASSERT_TRUE(
        peer.waitFor([](auto const& all) { return requestsIn(all).size() > SAMPLES; }, deadline));
    EXPECT_GE(steady_clock::now() - start, seconds(30));
    answer(SAMPLES + 1, 105.0);
    ASSERT_TRUE(support::eventually([&] { return proxy->offset() > 6.0; }));
    EXPECT_NEAR(proxy->offset(), 8.874204890, 1e-9);
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_EQ(listener.count(), 1);
}

} // namespace
