// The client and its timer, in moments that are rare with a real one.

#include "requestreply/client_frame.hpp"
#include "requestreply/sleeper.hpp"
#include "support/manual_timer.hpp"
#include "support/adjustable_clock.hpp"
#include "support/temp_dir.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <fstream>
#include <memory>

namespace {

using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto WITHOUT_LIMIT = UINT32_MAX;

class AClientWithATimerInOurHand : public ClientOnABroker {
protected:
    AClientWithATimerInOurHand() { manual_timer::reset(); }
    ~AClientWithATimerInOurHand() override { manual_timer::reset(); }
};

TEST_F(AClientWithATimerInOurHand, ArmsItForTheTimeOutInMilliseconds) {
    for (std::uint32_t const timeout : {0U, 1U, 3600U, WITHOUT_LIMIT - 1}) {
        ASSERT_EQ(request(timeout), Code::PENDING);
        auto const record = manual_timer::record();
        EXPECT_TRUE(record.armed);
        EXPECT_FALSE(record.once);
        EXPECT_EQ(record.period, seconds(timeout));
        client->cancel();
        EXPECT_FALSE(manual_timer::record().armed);
    }
}

TEST_F(AClientWithATimerInOurHand, ArmsNothingWithoutLimit) {
    ASSERT_EQ(request(WITHOUT_LIMIT), Code::PENDING);
    EXPECT_EQ(manual_timer::record().restarts, 0);
}

TEST_F(AClientWithATimerInOurHand, ArmsNothingWhenItWaitsItself) {
    EXPECT_EQ(requestWait(1), Code::TIMEOUT);
    EXPECT_EQ(manual_timer::record().restarts, 0);
    EXPECT_THAT(seen(), SizeIs(1)) << "only the request, and no time-out reply";
}

TEST_F(AClientWithATimerInOurHand, ArmsNothingForWhatItRefuses) {
    ASSERT_EQ(request(WITHOUT_LIMIT), Code::PENDING);
    EXPECT_EQ(request(1), Code::BUSY);
    client->terminate();
    EXPECT_EQ(request(1), Code::CANCELLED);
    EXPECT_EQ(manual_timer::record().restarts, 0);
    EXPECT_EQ(manual_timer::record().terminations, 1);
}

TEST_F(AClientWithATimerInOurHand, StopsItWithTheReply) {
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_FALSE(manual_timer::record().armed);
}

TEST_F(AClientWithATimerInOurHand, PublishesNoTimeOutReplyOfTheNextRequest) {
    ASSERT_EQ(request(0), Code::PENDING);
    client->cancel();
    for (std::uint32_t const timeout : {AN_HOUR, WITHOUT_LIMIT}) {
        ASSERT_EQ(request(timeout), Code::PENDING);
        // Of the first request: the timer's thread was slow.
        manual_timer::expire();
        receiveAll();
        EXPECT_EQ(request(), Code::BUSY);
        client->cancel();
    }
    for (auto const& message : seen()) {
        EXPECT_EQ(message.topic, requestTopic());
    }
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED, Code::CANCELLED, Code::CANCELLED));
}

TEST_F(AClientWithATimerInOurHand, IgnoresTheLateTimeOutReplyOfAnEarlierRequest) {
    ASSERT_EQ(request(0), Code::PENDING);
    auto const first = requestId;
    client->cancel();
    manual_timer::expire();
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(first, 3));
    receiveAll();
    EXPECT_EQ(client->request(nullptr, id, Uuid::NIL, nullptr, nullptr, nullptr, 0), Code::BUSY);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED, Code::SUCCESS));
}

TEST_F(AClientWithATimerInOurHand, QueuesOneTimeOutReplyWithoutAConnection) {
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

/// The broker denies the topics, but says nothing of it.
class ADeniedRequest : public AClientWithATimerInOurHand {
protected:
    ADeniedRequest() {
        support::BrokerOptions options;
        auto const list = directory.file("denied");
        std::ofstream(list) << "topic readwrite other/#\n";
        options.extraLines = {"acl_file " + list};
        denying = std::make_unique<support::Broker>(options);
        client.reset();
        mqtt = support::testClient(*denying);
        client = makeClient();
        manual_timer::reset();
    }
    ~ADeniedRequest() override {
        client.reset();
        mqtt.reset();
    }

    support::TempDir directory;
    std::unique_ptr<support::Broker> denying;
};

TEST_F(ADeniedRequest, EndsAfterTwoTimeOutRepliesInVain) {
    ASSERT_EQ(request(0), Code::PENDING);
    manual_timer::expire();
    EXPECT_EQ(manual_timer::record().period, seconds(1));
    EXPECT_TRUE(manual_timer::record().armed);
    manual_timer::expire();
    EXPECT_EQ(requestWait(), Code::BUSY) << "the second one is still to come back";
    manual_timer::expire();
    manual_timer::expire();
    ASSERT_THAT(recorder.calls(), SizeIs(1));
    EXPECT_EQ(recorder.calls()[0].error, Code::TIMEOUT);
    EXPECT_EQ(recorder.calls()[0].data, replyData.get());
    EXPECT_EQ(recorder.calls()[0].thread, std::this_thread::get_id());
    EXPECT_FALSE(manual_timer::record().armed);
    EXPECT_EQ(request(), Code::PENDING);
}

TEST_F(ADeniedRequest, StaysPendingWhileThereIsNoConnection) {
    ASSERT_EQ(request(0), Code::PENDING);
    manual_timer::expire();
    manual_timer::expire();
    ASSERT_EQ(mqtt->disconnect(30), mqtt::MqttClient::Error::SUCCESS);
    manual_timer::expire();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    ASSERT_EQ(mqtt->connect("", -1, 30), mqtt::MqttClient::Error::SUCCESS);
    manual_timer::expire();
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::TIMEOUT));
}

TEST_F(AClientWithATimerInOurHand, EndsARequestToATopicThatCannotBeWhenItsTimeIsOver) {
    for (bool const connected : {true, false}) {
        client = makeClient("+"); // and "+??" is no topic
        if (!connected) {
            ASSERT_EQ(mqtt->disconnect(30), mqtt::MqttClient::Error::SUCCESS);
        }
        ReplyRecorder ending;
        ASSERT_EQ(client->request(&ending, id, Uuid::NIL, nullptr, nullptr, nullptr, 0),
                  Code::PENDING);
        manual_timer::expire();
        EXPECT_THAT(ending.errors(), ElementsAre(Code::TIMEOUT)) << connected;
        client.reset();
    }
    EXPECT_THAT(peer.messages(), IsEmpty());
}

// Long enough for a reply to come first, also on a busy machine; nobody waits that long.
constexpr unsigned PATIENCE_OF_THE_WAITER = 25; // seconds

/// Lets the deadline of the one who waits pass within the end of a request, of which nobody can
/// know before.
void endTheRequestUntilTheWaiterIsLate() {
    manual_timer::onStop([] {
        adjustable_clock::advance(seconds(PATIENCE_OF_THE_WAITER));
        manual_timer::onStop(nullptr);
    });
}

TEST_F(AClientWithATimerInOurHand, TellsWaiterAndListenerDifferentThingsWhenTheWaiterIsLate) {
    ASSERT_EQ(request(WITHOUT_LIMIT), Code::PENDING);
    Code result = Code::NONE;
    Sleeper waiter([&] { result = client->waitEndOfRequest(PATIENCE_OF_THE_WAITER); });
    ASSERT_TRUE(waiter.fallsAsleep());
    endTheRequestUntilTheWaiterIsLate();
    reply(replyText(requestId, 17));
    waiter.join();
    EXPECT_EQ(result, Code::TIMEOUT);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(FAILURE_OF_THE_SERVICE));
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), Code::TIMEOUT) << "as the last wait said";
}

TEST_F(AClientWithATimerInOurHand, TellsThePatientWhatTheReplySaysWhenAnotherWaiterIsLate) {
    ASSERT_EQ(request(WITHOUT_LIMIT), Code::PENDING);
    std::array<Code, 8> results{};
    std::deque<Sleeper> waiters;
    waiters.emplace_back([&] { client->waitEndOfRequest(PATIENCE_OF_THE_WAITER); });
    for (auto& result : results) {
        waiters.emplace_back([&] { result = client->waitEndOfRequest(WITHOUT_LIMIT); });
    }
    for (auto const& waiter : waiters) {
        ASSERT_TRUE(waiter.fallsAsleep());
    }
    endTheRequestUntilTheWaiterIsLate();
    reply(replyText(requestId, 17));
    waiters.clear();
    EXPECT_THAT(results, Each(FAILURE_OF_THE_SERVICE));
}

TEST_F(AClientWithATimerInOurHand, LeavesTheNextRequestToItselfWhenTheWaitersAreLate) {
    ReplyRecorder next;
    unsigned int nextId = 0;
    ReplyRecorder first([&](Call const&) {
        EXPECT_EQ(client->request(&next, id, Uuid::NIL, nullptr, replyData, &nextId, WITHOUT_LIMIT),
                  Code::PENDING);
    });
    // However this ends: the client tells nobody who is gone.
    std::shared_ptr<void> const end(nullptr, [&](auto) { client.reset(); });
    ASSERT_EQ(client->request(&first, id, Uuid::NIL, nullptr, replyData, &requestId, WITHOUT_LIMIT),
              Code::PENDING);
    // Many, or the only one might get to know of the end before the next request is made.
    std::array<Code, 8> results{};
    std::deque<Sleeper> waiters;
    for (auto& result : results) {
        waiters.emplace_back([&] { result = client->waitEndOfRequest(PATIENCE_OF_THE_WAITER); });
    }
    for (auto const& waiter : waiters) {
        ASSERT_TRUE(waiter.fallsAsleep());
    }
    endTheRequestUntilTheWaiterIsLate();
    reply(replyText(requestId, 17));
    waiters.clear();
    EXPECT_THAT(results, Each(Code::TIMEOUT));
    ASSERT_TRUE(peer.waitForMessages(3));
    EXPECT_THAT(next.calls(), IsEmpty());
    requestId = idIn(peer.payloads()[2]);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(next.waitForCount(1));
    EXPECT_THAT(first.errors(), ElementsAre(FAILURE_OF_THE_SERVICE));
    EXPECT_THAT(next.errors(), ElementsAre(Code::SUCCESS));
}

} // namespace
