#include "services/binder_frame.hpp"

#include "support/watchdog.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

class AServerThatDoesNotTellTheTime : public WithAServer {};

TEST_F(AServerThatDoesNotTellTheTime, IsGivenUpAfterHalfAMinuteAndStaysBoundUntilItIsUnbound) {
    support::Watchdog::limit(std::chrono::seconds(240));
    server.withdrawTime();
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(proxy->bindSync(server.id, AN_HOUR), Error::NOT_SYNCHRONIZED);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::BUSY);
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(server.unbindings.count(), 1U);
    EXPECT_THAT(recorder.events(), ElementsAre(unbound(Error::SUCCESS)));
    expectFree();
    server.offerTime();
    bind();
    expectBound();
}

} // namespace
