// The client with a timer that expires when the test says so.

#include "requestreply/adjustable_clock.hpp"
#include "requestreply/client_fixture.hpp"
#include "support/manual_timer.hpp"

#include <chrono>
#include <memory>

namespace {

using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class AClientWithAHandDrivenTimer : public ClientOnABroker {
protected:
    AClientWithAHandDrivenTimer() { manual_timer::reset(); }
    ~AClientWithAHandDrivenTimer() override { manual_timer::reset(); }
};

TEST_F(AClientWithAHandDrivenTimer, ArmsItForTheTimeOutInMilliseconds) {
    std::size_t ended = 0;
    for (std::uint32_t const timeout : {0U, 1U, 3600U, NO_TIME_LIMIT - 1}) {
        ASSERT_EQ(request(timeout), Code::PENDING);
        auto const record = manual_timer::record();
        EXPECT_TRUE(record.armed);
        EXPECT_FALSE(record.once);
        EXPECT_EQ(record.period, seconds(timeout));
        timeout == 1 ? reply(1) : static_cast<void>(client->cancel());
        ASSERT_TRUE(recorder.waitForCount(++ended));
        EXPECT_FALSE(manual_timer::record().armed) << "the request has ended";
    }
}

TEST_F(AClientWithAHandDrivenTimer, ArmsItForNoOtherRequest) {
    EXPECT_EQ(requestWait(1), Code::TIMEOUT);
    EXPECT_THAT(seen(), SizeIs(1)) << "only the request, and no time-out reply";
    ASSERT_EQ(request(NO_TIME_LIMIT), Code::PENDING);
    EXPECT_EQ(request(1), Code::BUSY);
    client->terminate();
    EXPECT_EQ(request(1), Code::CANCELLED);
    EXPECT_EQ(manual_timer::record().restarts, 0);
    EXPECT_EQ(manual_timer::record().terminations, 1);
}

TEST_F(AClientWithAHandDrivenTimer, PublishesNoTimeOutReplyForTheNextRequest) {
    ASSERT_EQ(request(0), Code::PENDING);
    client->cancel();
    for (std::uint32_t const timeout : {LONG_TIMEOUT_S, NO_TIME_LIMIT}) {
        ASSERT_EQ(request(timeout), Code::PENDING);
        // The late expiry of the first request.
        manual_timer::expire();
        receiveAll();
        expectStillPending();
        client->cancel();
    }
    for (auto const& message : seen()) {
        EXPECT_EQ(message.topic, requestTopic());
    }
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED, Code::CANCELLED, Code::CANCELLED));
}

TEST_F(AClientWithAHandDrivenTimer, QueuesOneTimeOutReplyWithoutAConnection) {
    ASSERT_EQ(mqtt->disconnect(30), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(request(0), Code::PENDING);
    for (int expiry = 0; expiry < 5; ++expiry) {
        manual_timer::expire();
    }
    EXPECT_THAT(recorder.calls(), IsEmpty());
    ASSERT_EQ(mqtt->connect("", -1, 30), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::TIMEOUT));
    EXPECT_THAT(seen(), SizeIs(2)) << "the request and its time-out reply";
}

TEST_F(AClientWithAHandDrivenTimer, EndsARequestToAnInvalidTopicAfterItsTimeout) {
    for (bool const connected : {true, false}) {
        client = makeClient("+"); // "+??" is no valid topic
        if (!connected) {
            ASSERT_EQ(mqtt->disconnect(30), mqtt::MqttClient::Error::SUCCESS);
        }
        ReplyRecorder ending;
        ASSERT_EQ(requestFor(&ending, 0), Code::PENDING);
        manual_timer::expire();
        EXPECT_THAT(ending.errors(), ElementsAre(Code::TIMEOUT)) << connected;
        client.reset();
    }
    EXPECT_THAT(peer.messages(), IsEmpty());
}

/// Long enough for the reply to come first, also on a busy machine. The clock leaps over it.
constexpr unsigned WAIT_S = 25;

/// Lets the deadline of a waiting thread pass while the request is being ended.
void passTheDeadlineWhileTheRequestEnds() {
    manual_timer::onStop([] {
        adjustable_clock::advance(seconds(WAIT_S));
        manual_timer::onStop(nullptr);
    });
}

TEST_F(AClientWithAHandDrivenTimer, ReportsTimeoutToALateWaiterAndTheReplyToTheListener) {
    ASSERT_EQ(request(NO_TIME_LIMIT), Code::PENDING);
    WaitingThreads waiter(*client, WAIT_S);
    passTheDeadlineWhileTheRequestEnds();
    reply(17);
    EXPECT_THAT(waiter.results(), ElementsAre(Code::TIMEOUT));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(SERVICE_ERROR));
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), Code::TIMEOUT)
        << "as the last wait returned";
}

TEST_F(AClientWithAHandDrivenTimer, ReportsTheReplyToTheOtherWaitersOfALateOne) {
    ASSERT_EQ(request(NO_TIME_LIMIT), Code::PENDING);
    WaitingThreads late(*client, WAIT_S);
    WaitingThreads others(*client, NO_TIME_LIMIT, 8);
    passTheDeadlineWhileTheRequestEnds();
    reply(17);
    EXPECT_THAT(others.results(), Each(SERVICE_ERROR));
}

TEST_F(AClientWithAHandDrivenTimer, DoesNotEndTheNextRequestForLateWaiters) {
    ReplyRecorder next;
    unsigned int nextId = 0;
    ReplyRecorder first([&](ReplyCall const&) {
        EXPECT_EQ(client->request(&next, id, Uuid::NIL, nullptr, replyData, &nextId, NO_TIME_LIMIT),
                  Code::PENDING);
    });
    // Also when an assertion fails: the client must not call a listener that is gone.
    std::shared_ptr<void> const end(nullptr, [&](auto) { client.reset(); });
    ASSERT_EQ(requestFor(&first, NO_TIME_LIMIT), Code::PENDING);
    // Several, because one alone may wake up before the next request is made.
    WaitingThreads waiters(*client, WAIT_S, 8);
    passTheDeadlineWhileTheRequestEnds();
    reply(17);
    EXPECT_THAT(waiters.results(), Each(Code::TIMEOUT));
    ASSERT_TRUE(peer.waitForMessages(3));
    EXPECT_THAT(next.calls(), IsEmpty());
    requestId = idIn(peer.payloads()[2]);
    reply(1);
    ASSERT_TRUE(next.waitForCount(1));
    EXPECT_THAT(first.errors(), ElementsAre(SERVICE_ERROR));
    EXPECT_THAT(next.errors(), ElementsAre(Code::SUCCESS));
}

} // namespace
