// The one test that waits for the proxy's own timer.

#include "services/time_base_frame.hpp"
#include "support/watchdog.hpp"

#include <chrono>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class APeriodicSample : public TimeBaseOnABroker {};

TEST_F(APeriodicSample, IsTakenEvery30SecondsByARealTimer) {
    constexpr seconds PATIENCE{240};
    support::Watchdog::limit(PATIENCE + seconds(60));
    auto const start = steady_clock::now();
    synchronize(5.0);
    ASSERT_TRUE(
        peer.waitFor([](auto const& all) { return requestsIn(all).size() > SAMPLES; }, PATIENCE));
    EXPECT_GE(steady_clock::now() - start, seconds(30));
    answer(SAMPLES + 1, 105.0);
    ASSERT_TRUE(support::eventually([&] { return proxy->offset() > 6.0; }));
    EXPECT_NEAR(proxy->offset(), 8.874204890, 1e-9);
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_EQ(listener.count(), 1);
}

} // namespace
