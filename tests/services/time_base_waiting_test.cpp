// Waiting for the time, and what ends the wait.

#include "requestreply/rounds.hpp"
#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <optional>

namespace {

using conv::SecondsDuration;
using manual_timer::record;

constexpr std::uint32_t LONGEST_TIMEOUT_S = INT32_MAX;
/// Read as a negative number.
constexpr std::uint32_t NEGATIVE_TIMEOUT = LONGEST_TIMEOUT_S + 1;

class AWaitForTheTime : public TimeBaseOnABroker {
protected:
    /// A wait on a thread of its own.
    class Wait {
    public:
        Wait(ClockedProxy& proxy, Uuid const& server, std::uint32_t timeout = LONGEST_TIMEOUT_S)
            : thread_([this, &proxy, server, timeout] {
                  result_ = proxy.synchronize(server, timeout);
              }) {}

        bool isBlocked() const { return thread_.isBlocked(); }
        bool result() {
            thread_.join();
            return result_.value();
        }

    private:
        std::optional<bool> result_;
        BlockingThread thread_; // last: it writes the result
    };

    void expectIdleWithoutTimers() const {
        expectIdle();
        EXPECT_FALSE(record(0).armed);
        EXPECT_FALSE(record(1).armed);
    }

    void expectItCanStart() {
        auto const next = requestCount() + 1;
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(next, SAMPLES, 5.0);
        EXPECT_TRUE(listener.waitForCount(1));
    }
};

TEST_F(AWaitForTheTime, EndsWhenItIsKnownWithoutACallOfTheListener) {
    Wait wait(*proxy, server);
    reply(1, "", 17); // and is repeated
    answerAll(2, SAMPLES - 1, 5.0);
    request(SAMPLES + 1);
    EXPECT_TRUE(wait.isBlocked());
    answer(SAMPLES + 1, 5.0);
    EXPECT_TRUE(wait.result());
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
    receiveAll();
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(record(0).period, std::chrono::seconds(30));
    EXPECT_TRUE(record(0).armed);
}

TEST_F(AWaitForTheTime, EndsByTimeOutWithEverythingStopped) {
    Wait wait(*proxy, server, 2);
    answer(1, 5.0); // the other samples do not come
    EXPECT_FALSE(wait.result());
    expectIdleWithoutTimers();
    expectItCanStart();
}

TEST_F(AWaitForTheTime, WithoutAPositiveTimeoutDoesNotWait) {
    for (auto const& timeout : {SecondsDuration(0), SecondsDuration(NEGATIVE_TIMEOUT),
                                SecondsDuration(SecondsDuration::NO_TIMEOUT)}) {
        EXPECT_FALSE(proxy->synchronize(server, timeout));
        expectIdleWithoutTimers();
    }
    expectItCanStart();
}

TEST_F(AWaitForTheTime, IsEndedByAStopATerminationAndADestruction) {
    std::vector<std::function<void()>> const ends{[this] { EXPECT_TRUE(proxy->stop()); },
                                                  [this] { proxy->terminate(); },
                                                  [this] { proxy.reset(); }};
    for (std::size_t i = 0; i < ends.size(); ++i) {
        SCOPED_TRACE(i);
        Wait wait(*proxy, server);
        request(i + 1);
        ASSERT_TRUE(wait.isBlocked());
        ends[i]();
        EXPECT_FALSE(wait.result());
        if (proxy) {
            expectIdleWithoutTimers();
        }
        manual_timer::reset();
        proxy = makeProxy();
    }
}

TEST_F(AWaitForTheTime, DoesNotStopTheNextRunInManyRounds) {
    auto const count = static_cast<std::size_t>(rounds(5));
    std::size_t n = 1;
    for (std::size_t round = 1; round <= count; ++round) {
        Wait wait(*proxy, mqtt::test::uniqueId());
        request(n);
        ASSERT_TRUE(wait.isBlocked());
        proxy->stop();
        ASSERT_TRUE(proxy->startSync(server));
        EXPECT_FALSE(wait.result());
        answerAll(n + 1, SAMPLES, 5.0);
        ASSERT_TRUE(listener.waitForCount(round));
        EXPECT_EQ(proxy->serverUuid(), server);
        proxy->stop();
        n = requestCount() + 1;
    }
}

} // namespace
