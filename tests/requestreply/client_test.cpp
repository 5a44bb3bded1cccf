#include "requestreply/client_fixture.hpp"
#include "support/log_lines.hpp"

#include <chrono>

namespace {

using mqtt::test::isSet;
using mqtt::test::Message;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ARequestReplyClient : public ClientOnABroker {};

TEST_F(ARequestReplyClient, TakesTheIdentifierFromTheSteadyClock) {
    auto const now = [] {
        auto const time = steady_clock::now().time_since_epoch();
        return static_cast<unsigned int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
    };
    auto const before = now();
    ASSERT_EQ(request(), Code::PENDING);
    auto const after = now();
    EXPECT_LE(requestId - before, after - before);
}

TEST_F(ARequestReplyClient, NeverTakesAnIdentifierTwice) {
    unsigned int last = 0;
    // More requests than there are milliseconds.
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(request(), Code::PENDING);
        EXPECT_GT(requestId, last);
        last = requestId;
        client->cancel();
        // The next client of the same name receives the replies to the last one too.
        client = makeClient();
    }
}

TEST_F(ARequestReplyClient, SendsARequestAndCallsItsListenerWithTheReply) {
    auto const server = mqtt::test::uniqueId();
    ASSERT_EQ(client->request(&recorder, id, server, std::make_shared<NumberData>(7), replyData,
                              &requestId, LONG_TIMEOUT_S),
              Code::PENDING);
    awaitRequest();
    auto const base = "svc/" + server.base64URL() + "/time/sync";
    auto const payload = "{\n  \"$reqId\": " + std::to_string(requestId) + ",\n  \"number\": 7\n}";
    EXPECT_THAT(seen(), ElementsAre(Message{base + "?\?/" + id.base64URL(), payload, 2, false}));
    peer.publish(base + "?=/" + id.base64URL(), replyText(requestId, 17, "\"number\": 8"));
    ASSERT_TRUE(recorder.waitForCount(1));
    auto const call = recorder.calls()[0];
    EXPECT_EQ(call.requestId, requestId);
    EXPECT_EQ(call.name, "sync");
    EXPECT_EQ(call.clientUuid, id);
    EXPECT_EQ(call.serverUuid, server);
    EXPECT_EQ(call.error, SERVICE_ERROR);
    EXPECT_EQ(call.data, replyData.get());
    EXPECT_EQ(replyData->number, 8U);
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), SERVICE_ERROR);
}

TEST_F(ARequestReplyClient, RefusesASecondRequestAndSendsNothing) {
    ASSERT_EQ(request(), Code::PENDING);
    unsigned int untouched = 5;
    ReplyRecorder refused;
    EXPECT_EQ(client->request(&refused, id, Uuid::NIL, nullptr, nullptr, &untouched, 0),
              Code::BUSY);
    EXPECT_EQ(requestWait(0), Code::BUSY);
    EXPECT_EQ(untouched, 5U);
    EXPECT_THAT(seen(), SizeIs(1));
    reply(1);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(refused.calls(), IsEmpty());
}

TEST_F(ARequestReplyClient, CountsItsRequestsByTheirEnd) {
    ASSERT_EQ(request(), Code::PENDING);
    EXPECT_EQ(request(), Code::BUSY);
    reply(17);
    ASSERT_TRUE(recorder.waitForCount(1));
    ASSERT_EQ(request(), Code::PENDING);
    client->cancel();
    ASSERT_EQ(requestWait(0), Code::TIMEOUT);
    ASSERT_EQ(request(0), Code::PENDING);
    ASSERT_TRUE(recorder.waitForCount(3));
    auto const counted = mqtt->statistics().requests;
    EXPECT_EQ(counted.made, 4U);
    EXPECT_EQ(counted.replied, 1U);
    EXPECT_EQ(counted.timedOut, 2U);
}

TEST_F(ARequestReplyClient, IgnoresAReplyWithAnotherIdentifier) {
    support::LogLines const log(mqtt::LogLevel::INFO);
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId + 1, 1, "\"number\": 8"));
    reply(replyText(requestId - 1, 3));
    receiveAll();
    expectStillPending();
    reply(17);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(SERVICE_ERROR));
    EXPECT_EQ(replyData->number, 0U) << "the payload of another reply";
    auto const other = std::to_string(requestId + 1);
    EXPECT_THAT(log.copy(), ElementsAre(testing::EndsWith(": reply dropped: request " + other
                                                          + " of sync is not under way")));
}

TEST_F(ARequestReplyClient, ReadsNothingMoreWhenItsRequestHasEnded) {
    // Receives the reply before the client does, and delays it.
    mqtt::test::Watched<bool> entered;
    mqtt::test::Watched<bool> mayLeave;
    mqtt::test::MessageRecorder delay([&](auto&&...) {
        set(entered);
        mayLeave.waitFor(isSet);
    });
    ASSERT_EQ(mqtt->subscribe(replyTopic(), &delay, 0), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(request(), Code::PENDING);
    reply(1, "\"number\": 8");
    ASSERT_TRUE(entered.waitFor(isSet));
    client->cancel();
    set(mayLeave);
    receiveAll();
    EXPECT_EQ(replyData->number, 0U);
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED));
    mqtt->release(&delay);
}

TEST_F(ARequestReplyClient, IgnoresWhatIsNoReplyAndTheSecondReply) {
    ASSERT_EQ(request(), Code::PENDING);
    for (auto const& payload : {std::string(), std::string("[]"), replyText(requestId, 256)}) {
        reply(payload);
    }
    receiveAll();
    expectStillPending();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    reply(17, "\"number\": 9");
    reply(1, "\"number\": 10");
    receiveAll();
    EXPECT_THAT(recorder.errors(), ElementsAre(SERVICE_ERROR));
    EXPECT_EQ(replyData->number, 9U);
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), SERVICE_ERROR);
}

TEST_F(ARequestReplyClient, NeedsNeitherListenerNorPayloads) {
    replyData = nullptr;
    ASSERT_EQ(requestFor(nullptr), Code::PENDING);
    reply(17);
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), SERVICE_ERROR);
    ASSERT_EQ(requestFor(&recorder), Code::PENDING);
    reply(1);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_NE(dynamic_cast<mqtt::RequestReplyNoData const*>(recorder.calls()[0].data), nullptr);
}

TEST_F(ARequestReplyClient, WithNothingPendingHasNothingToCancel) {
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), Code::NONE);
    ASSERT_EQ(request(), Code::PENDING);
    reply(1);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::SUCCESS));
}

TEST_F(ARequestReplyClient, CallsItsListenerForACancellationOnTheSameThread) {
    ASSERT_EQ(request(), Code::PENDING);
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    auto const calls = recorder.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].error, Code::CANCELLED);
    EXPECT_EQ(calls[0].requestId, requestId);
    EXPECT_NE(dynamic_cast<mqtt::RequestReplyNoData const*>(calls[0].data), nullptr);
    EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), Code::CANCELLED);
    reply(1);
    receiveAll();
    EXPECT_THAT(recorder.calls(), SizeIs(1));
}

/// It waits on the worker only for what has come.
TEST_F(ARequestReplyClient, HasEndedItsRequestWhenItCallsTheListener) {
    Code waited = Code::NONE;
    ReplyRecorder first(
        [&](ReplyCall const&) { waited = client->waitEndOfRequest(NO_TIME_LIMIT); });
    ASSERT_EQ(requestFor(&first), Code::PENDING);
    reply(17);
    receiveAll();
    EXPECT_EQ(waited, SERVICE_ERROR);
}

TEST_F(ARequestReplyClient, WaitsForOneRequestOnly) {
    ASSERT_EQ(request(), Code::PENDING);
    auto const first = requestId;
    client->cancel();
    EXPECT_EQ(client->waitEndOfRequest(first, 0), Code::CANCELLED);
    ASSERT_EQ(request(), Code::PENDING);
    EXPECT_EQ(client->waitEndOfRequest(first, 0), Code::CANCELLED);
    expectStillPending();
    EXPECT_EQ(client->waitEndOfRequest(requestId, 0), Code::TIMEOUT);
}

TEST_F(ARequestReplyClient, SendsNothingAfterItsTermination) {
    ASSERT_EQ(request(), Code::PENDING);
    client->terminate();
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED));
    client->terminate();
    EXPECT_EQ(request(), Code::CANCELLED);
    EXPECT_EQ(requestWait(), Code::CANCELLED);
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), Code::CANCELLED);
    EXPECT_THAT(seen(), SizeIs(1));
    EXPECT_THAT(recorder.calls(), SizeIs(1));
}

class ARequestWithoutAServer : public ClientOnABroker {
protected:
    std::string timeOutReply() const {
        return "{\n  \"$reqId\": " + std::to_string(requestId) + ",\n  \"$err\": 3\n}";
    }
};

TEST_F(ARequestWithoutAServer, EndsByATimeOutReplyThroughTheBroker) {
    for (std::size_t round = 1; round <= 2; ++round) {
        auto const start = steady_clock::now();
        ASSERT_EQ(request(1), Code::PENDING);
        ASSERT_TRUE(recorder.waitForCount(round));
        EXPECT_GE(steady_clock::now() - start, seconds(1));
        auto const call = recorder.calls().back();
        EXPECT_EQ(call.error, Code::TIMEOUT);
        EXPECT_EQ(call.requestId, requestId);
        EXPECT_EQ(call.data, replyData.get());
        EXPECT_NE(call.thread, std::this_thread::get_id());
        EXPECT_THAT(seen(), Contains(Message{replyTopic(), timeOutReply(), 2, false}));
        EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), Code::TIMEOUT);
    }
}

TEST_F(ARequestWithoutAServer, IsAwaitedUntilTheTimeout) {
    EXPECT_EQ(requestWait(0), Code::TIMEOUT);
    EXPECT_EQ(client->waitEndOfRequest(LONG_TIMEOUT_S), Code::TIMEOUT);
    auto const start = steady_clock::now();
    EXPECT_EQ(requestWait(2), Code::TIMEOUT);
    EXPECT_GE(steady_clock::now() - start, seconds(2));
    EXPECT_THAT(seen(), SizeIs(2)) << "no time-out reply is needed";
    EXPECT_THAT(recorder.calls(), IsEmpty());
}

TEST_F(ARequestWithoutAServer, IsEndedByAWaitThatRunsOut) {
    ASSERT_EQ(request(NO_TIME_LIMIT), Code::PENDING);
    EXPECT_EQ(client->waitEndOfRequest(1), Code::TIMEOUT);
    auto const calls = recorder.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].error, Code::TIMEOUT);
    EXPECT_EQ(calls[0].requestId, requestId);
    EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
    EXPECT_NE(dynamic_cast<mqtt::RequestReplyNoData const*>(calls[0].data), nullptr);
    EXPECT_THAT(seen(), SizeIs(1)) << "no time-out reply is needed";
    EXPECT_EQ(request(), Code::PENDING);
}

TEST_F(ARequestWithoutAServer, IsAwaitedWithoutLimit) {
    std::size_t ended = 0;
    for (std::uint32_t const timeout : {NO_TIME_LIMIT, NO_TIME_LIMIT - 1, 1U << 31U}) {
        ASSERT_EQ(request(timeout), Code::PENDING);
        WaitingThreads waiter(*client, timeout);
        expectStillPending();
        reply(17);
        EXPECT_THAT(waiter.results(), ElementsAre(SERVICE_ERROR));
        // The wait may return before the listener is called.
        ASSERT_TRUE(recorder.waitForCount(++ended));
    }
    EXPECT_THAT(recorder.errors(), Each(SERVICE_ERROR));
}

} // namespace
