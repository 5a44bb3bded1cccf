// Waiting for the time, and who ends the wait.

#include "requestreply/blocking_thread.hpp"
#include "services/time_base_frame.hpp"
#include "support/manual_timer.hpp"
#include "support/timeout_factor.hpp"

#include <optional>

namespace {

using conv::SecondsDuration;
using manual_timer::record;

/// The first is far from what a test may last, and the last is a second ago.
constexpr std::uint32_t LONGEST = INT32_MAX;
constexpr std::uint32_t FIRST_NEGATIVE = LONGEST + 1;

class AWaitForTheTime : public TimeBaseOnABroker {
protected:
    /// A wait on a thread of its own.
    class Wait {
    public:
        Wait(ClockedProxy& proxy, Uuid const& server, std::uint32_t timeout = LONGEST)
            : sleeper_([this, &proxy, server, timeout] {
                  result_ = proxy.synchronize(server, timeout);
              }) {}

        bool isBlocked() const { return sleeper_.isBlocked(); }
        bool result() {
            sleeper_.join();
            return result_.value();
        }

    private:
        std::optional<bool> result_;
        BlockingThread sleeper_; // last: it writes the result
    };

    void expectIdle() {
        EXPECT_FALSE(proxy->isSynchronized());
        EXPECT_EQ(proxy->serverUuid(), Uuid::NIL);
        EXPECT_EQ(proxy->offset(), 0.0);
        EXPECT_FALSE(record(0).armed);
        EXPECT_FALSE(record(1).armed);
    }

    /// Whatever was done before, the proxy can learn the time of a server.
    void expectItCanStart() {
        auto const next = requestCount() + 1;
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(next, SAMPLES, 5.0);
        EXPECT_TRUE(listener.isTold());
    }
};

TEST_F(AWaitForTheTime, EndsWhenItIsKnownAndTellsNobodyElse) {
    Wait wait(*proxy, server);
    answerAll(1, SAMPLES - 1, 5.0);
    request(SAMPLES);
    EXPECT_TRUE(wait.isBlocked());
    answer(SAMPLES, 5.0);
    EXPECT_TRUE(wait.result());
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_DOUBLE_EQ(proxy->offset(), 5.0);
    receiveAll();
    EXPECT_EQ(listener.count(), 0);
    EXPECT_EQ(record(0).period, std::chrono::seconds(30));
    EXPECT_TRUE(record(0).armed);
}

TEST_F(AWaitForTheTime, TellsNobodyWhateverFailsMeanwhile) {
    Wait wait(*proxy, server);
    reply(1, "", 17);
    answer(2, 5.0);
    reply(3, "", 17);
    answerAll(4, SAMPLES - 1, 5.0);
    EXPECT_TRUE(wait.result());
    receiveAll();
    EXPECT_EQ(listener.count(), 0);
}

TEST_F(AWaitForTheTime, EndsByTimeOutWithEverythingStopped) {
    EXPECT_FALSE(proxy->synchronize(server, 1));
    expectIdle();
    EXPECT_EQ(requestCount(), 1U);
    expectItCanStart();
}

TEST_F(AWaitForTheTime, EndsByTimeOutInTheMiddleOfTheSamplesToo) {
    Wait wait(*proxy, server, 2);
    answer(1, 5.0);
    EXPECT_FALSE(wait.result());
    expectIdle();
    expectItCanStart();
}

TEST_F(AWaitForTheTime, OfNoLengthDoesNotWait) {
    EXPECT_FALSE(proxy->synchronize(server, 0));
    expectIdle();
    expectItCanStart();
}

TEST_F(AWaitForTheTime, OfNegativeLengthDoesNotWait) {
    EXPECT_FALSE(proxy->synchronize(server, FIRST_NEGATIVE));
    EXPECT_FALSE(proxy->synchronize(server, SecondsDuration::NO_TIMEOUT));
    expectIdle();
    expectItCanStart();
}

/// The replies would have to be read by the thread that waits for them.
TEST_F(AWaitForTheTime, OnTheWorkerDoesNotWait) {
    struct Caller : mqtt::MqttClient::Subscriber {
        explicit Caller(std::function<void()> hook) : hook_(std::move(hook)) {}
        void onMqttMessage(int, mqtt::Topic const&, std::string const&) override { hook_(); }
        std::function<void()> hook_;
    } caller([this] { EXPECT_FALSE(proxy->synchronize(server, AN_HOUR)); });
    ASSERT_EQ(mqtt->subscribe("call", &caller, 0), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(mqtt->publish("call", "x", 2, false), mqtt::MqttClient::Error::SUCCESS);
    receiveAll();
    mqtt->release(&caller);
    expectIdle();
    expectItCanStart();
}

TEST_F(AWaitForTheTime, LeavesAProxyAloneThatIsActive) {
    ASSERT_TRUE(proxy->startSync(server));
    for (std::uint32_t const timeout : {0U, LONGEST, UINT32_MAX}) {
        EXPECT_FALSE(proxy->synchronize(support::uniqueId(), timeout));
    }
    answerAll(1, SAMPLES, 5.0);
    ASSERT_TRUE(listener.isTold());
    for (std::uint32_t const timeout : {0U, LONGEST, UINT32_MAX}) {
        EXPECT_FALSE(proxy->synchronize(server, timeout));
    }
    EXPECT_TRUE(proxy->isSynchronized());
    EXPECT_EQ(proxy->serverUuid(), server);
    EXPECT_EQ(requestCount(), 10U);
}

TEST_F(AWaitForTheTime, IsEndedByAStop) {
    Wait wait(*proxy, server);
    request(1);
    ASSERT_TRUE(wait.isBlocked());
    EXPECT_TRUE(proxy->stop());
    EXPECT_FALSE(wait.result());
    expectIdle();
    expectItCanStart();
}

TEST_F(AWaitForTheTime, IsEndedByTermination) {
    Wait wait(*proxy, server);
    request(1);
    ASSERT_TRUE(wait.isBlocked());
    proxy->terminate();
    EXPECT_FALSE(wait.result());
    expectIdle();
}

TEST_F(AWaitForTheTime, IsEndedByDestruction) {
    for (int round = 1; round <= 20 / support::TIMEOUT_FACTOR; ++round) {
        Wait wait(*proxy, server);
        request(static_cast<std::size_t>(round));
        ASSERT_TRUE(wait.isBlocked());
        proxy.reset();
        EXPECT_FALSE(wait.result());
        proxy = makeProxy();
    }
}

TEST_F(AWaitForTheTime, DoesNotStopTheRunThatFollowsItsOwn) {
    std::size_t n = 1;
    for (int round = 1; round <= 20 / support::TIMEOUT_FACTOR; ++round) {
        Wait wait(*proxy, support::uniqueId());
        request(n);
        ASSERT_TRUE(wait.isBlocked());
        proxy->stop();
        ASSERT_TRUE(proxy->startSync(server));
        EXPECT_FALSE(wait.result());
        answerAll(n + 1, SAMPLES, 5.0);
        ASSERT_TRUE(listener.isTold(round));
        EXPECT_EQ(proxy->serverUuid(), server);
        proxy->stop();
        n = requestCount() + 1;
    }
}

TEST_F(AWaitForTheTime, MayFollowAnother) {
    EXPECT_FALSE(proxy->synchronize(server, 0));
    Wait wait(*proxy, server);
    answerAll(2, SAMPLES, 5.0);
    EXPECT_TRUE(wait.result());
    EXPECT_EQ(listener.count(), 0);
    proxy->stop();
    expectItCanStart();
}

} // namespace
