#include "requestreply/client_frame.hpp"
#include "requestreply/sleeper.hpp"

#include <chrono>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Message;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto WITHOUT_LIMIT = UINT32_MAX;
constexpr milliseconds A_SECOND{1000};

class ARequestWithoutServer : public ClientOnABroker {
protected:
    std::string timeOutReply() const {
        return "{\n  \"$reqId\": " + std::to_string(requestId) + ",\n  \"$err\": 3\n}";
    }
};

TEST_F(ARequestWithoutServer, EndsByATimeOutReplyThatTravelsThroughTheBroker) {
    auto const start = steady_clock::now();
    ASSERT_EQ(request(1), Code::PENDING);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_GE(steady_clock::now() - start, A_SECOND);
    auto const call = recorder.calls()[0];
    EXPECT_EQ(call.error, Code::TIMEOUT);
    EXPECT_EQ(call.requestId, requestId);
    EXPECT_EQ(call.data, replyData.get());
    EXPECT_NE(call.thread, std::this_thread::get_id());
    auto const messages = seen();
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(messages[0].topic, requestTopic());
    EXPECT_EQ(messages[1], (Message{replyTopic(), timeOutReply(), 2, false}));
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), Code::TIMEOUT);
}

TEST_F(ARequestWithoutServer, GoesOnWhenTheTimeOutReplyIsNotItsOwn) {
    ASSERT_EQ(request(1), Code::PENDING);
    auto const first = requestId;
    ASSERT_TRUE(recorder.waitForCount(1));
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(first, 3));
    receiveAll();
    EXPECT_EQ(requestWait(), Code::BUSY);
    EXPECT_THAT(recorder.calls(), SizeIs(1));
}

TEST_F(ARequestWithoutServer, IsOverForAReplyThatComesTooLate) {
    ASSERT_EQ(request(1), Code::PENDING);
    ASSERT_TRUE(recorder.waitForCount(1));
    reply(replyText(requestId, 1, "\"number\": 8"));
    receiveAll();
    auto const first = requestId;
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(first, 1));
    receiveAll();
    EXPECT_EQ(requestWait(), Code::BUSY);
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::TIMEOUT));
    reply(replyText(requestId, 17));
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::TIMEOUT, FAILURE_OF_THE_SERVICE));
}

TEST_F(ARequestWithoutServer, EndsAtOnceWithoutAnyTime) {
    ASSERT_EQ(request(0), Code::PENDING);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::TIMEOUT));
    EXPECT_EQ(recorder.calls()[0].data, replyData.get());
    EXPECT_THAT(seen(), Contains(Message{replyTopic(), timeOutReply(), 2, false}));
}

TEST_F(ARequestWithoutServer, StaysPendingWithoutAConnectionAlsoWithoutAnyTime) {
    support::ClientOptions options;
    options.connect = false;
    client.reset();
    mqtt = support::testClient(broker, options);
    client = makeClient();
    ASSERT_EQ(request(0), Code::PENDING);
    EXPECT_FALSE(recorder.waitForCount(1, A_WHILE));
    ASSERT_EQ(mqtt->connect("", -1, 30), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
}

TEST_F(ARequestWithoutServer, KeepsNobodyWaitingBeyondTheTimeOut) {
    auto const start = steady_clock::now();
    EXPECT_EQ(requestWait(2), Code::TIMEOUT);
    EXPECT_GE(steady_clock::now() - start, 2 * A_SECOND);
    EXPECT_THAT(seen(), SizeIs(1)) << "nobody needs a time-out reply";
    EXPECT_EQ(request(), Code::PENDING);
}

TEST_F(ARequestWithoutServer, KeepsNobodyWaitingWithoutAnyTime) {
    EXPECT_EQ(requestWait(0), Code::TIMEOUT);
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), Code::TIMEOUT);
    EXPECT_THAT(recorder.calls(), IsEmpty());
}

TEST_F(ARequestWithoutServer, IsEndedByTheOneWhoWaitedLongEnough) {
    ASSERT_EQ(request(WITHOUT_LIMIT), Code::PENDING);
    EXPECT_EQ(client->waitEndOfRequest(1), Code::TIMEOUT);
    auto const calls = recorder.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].error, Code::TIMEOUT);
    EXPECT_EQ(calls[0].requestId, requestId);
    EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
    EXPECT_NE(dynamic_cast<mqtt::RequestReplyNoData const*>(calls[0].data), nullptr);
    EXPECT_THAT(seen(), SizeIs(1)) << "nobody needs a time-out reply";
    EXPECT_EQ(request(), Code::PENDING);
}

TEST_F(ARequestWithoutServer, IsAwaitedWithoutLimit) {
    std::size_t ended = 0;
    for (std::uint32_t const timeout : {WITHOUT_LIMIT, WITHOUT_LIMIT - 1, 1U << 31U}) {
        ASSERT_EQ(request(timeout), Code::PENDING);
        Code result = Code::NONE;
        Sleeper waiter([&] { result = client->waitEndOfRequest(timeout); });
        EXPECT_TRUE(waiter.fallsAsleep());
        EXPECT_EQ(client->request(nullptr, id, Uuid::NIL, nullptr, nullptr, nullptr, 0),
                  Code::BUSY);
        reply(replyText(requestId, 17));
        waiter.join();
        EXPECT_EQ(result, FAILURE_OF_THE_SERVICE);
        // Who waits may know before the listener is told.
        ASSERT_TRUE(recorder.waitForCount(++ended));
    }
    EXPECT_THAT(recorder.errors(), ElementsAre(FAILURE_OF_THE_SERVICE, FAILURE_OF_THE_SERVICE,
                                               FAILURE_OF_THE_SERVICE));
}

TEST_F(ARequestWithoutServer, IsEndedInTimeAlsoWhenTheLastOneWas) {
    for (int round = 1; round <= 2; ++round) {
        ASSERT_EQ(request(1), Code::PENDING);
        ASSERT_TRUE(recorder.waitForCount(static_cast<std::size_t>(round)));
    }
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::TIMEOUT, Code::TIMEOUT));
}

} // namespace
