// A test that waits half a minute.

#include "services/binder_fixture.hpp"
#include "support/watchdog.hpp"

#include <chrono>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;
using AServerWithoutATime = AProxyOnAScript;

TEST_F(AServerWithoutATime, LeavesABindingOpenAfterThirtySeconds) {
    support::Watchdog::limit(seconds(240));
    ignore("timeSync");
    auto const start = steady_clock::now();
    EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), Error::NOT_SYNCHRONIZED);
    EXPECT_GE(steady_clock::now() - start, seconds(30));
    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::SUCCESS)));
    expectUnbound();
    answer("timeSync");
    bind();
    expectBound();
}

} // namespace
