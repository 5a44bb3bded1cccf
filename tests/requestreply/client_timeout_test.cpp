#include "requestreply/client_fixture.hpp"

#include <chrono>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using support::Message;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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
