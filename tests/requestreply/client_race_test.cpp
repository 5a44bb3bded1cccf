// Requests, replies, time-outs and destructions at the same time. Some defects here are seen by a
// sanitizer only.

#include "requestreply/client_fixture.hpp"

#include <atomic>
#include <functional>
#include <vector>

namespace {

using mqtt::test::isSet;
using testing::Each;
using testing::ElementsAre;

class AWait : public ClientOnABroker {};

TEST_F(AWait, BelongsToTheRequestItBeganWith) {
    ReplyRecorder first([&](ReplyCall const&) { EXPECT_EQ(request(), Code::PENDING); });
    ASSERT_EQ(requestFor(&first, NO_TIME_LIMIT), Code::PENDING);
    // Several, because one alone may wake up before the next request is made.
    WaitingThreads waiters(*client, NO_TIME_LIMIT, 8);
    reply(17);
    EXPECT_THAT(waiters.results(), Each(SERVICE_ERROR));
    receiveAll();
    client->cancel();
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED));
}

class AListener : public ClientOnABroker {};

/// No thread may still be inside a wait when the client is destroyed.
TEST_F(AListener, MayDestroyItsClientWhateverEndedTheRequest) {
    struct End {
        Code error;
        std::function<void()> end;
        std::size_t waiters = 12; ///< so many that the last one is late
        std::uint32_t timeout = LONG_TIMEOUT_S;
        char const* name = "sync";
    };
    std::vector<End> const ends{
        {SERVICE_ERROR, [this] { reply(17); }},
        {Code::CANCELLED, [this] { client->cancel(); }},
        {Code::CANCELLED, [this] { client->terminate(); }},
        {Code::TIMEOUT, [this] { client->waitEndOfRequest(0); }},
        {Code::TIMEOUT, [] {}, 0, 0},       // by the time-out reply
        {Code::TIMEOUT, [] {}, 0, 0, "+"}}; // to an invalid topic: by the timer's thread
    for (auto const& [error, end, waiters, timeout, name] : ends) {
        SCOPED_TRACE(error);
        mqtt::test::Watched<bool> gone;
        ReplyRecorder ending([&](ReplyCall const&) {
            client.reset();
            set(gone);
        });
        client = makeClient(name);
        auto* const which = client.get();
        ASSERT_EQ(which->request(&ending, id, Uuid::NIL, nullptr, replyData, &requestId, timeout),
                  Code::PENDING);
        WaitingThreads waiting(*which, NO_TIME_LIMIT, waiters);
        end();
        EXPECT_THAT(waiting.results(), Each(error));
        ASSERT_TRUE(gone.waitFor(isSet));
        receiveAll();
        EXPECT_THAT(ending.errors(), ElementsAre(error));
        peer.clearMessages();
    }
}

/// The timer's thread ends a request to an invalid topic.
class AListenerOnTheTimersThread : public ClientOnABroker {
protected:
    AListenerOnTheTimersThread() { client = makeClient("+"); }
};

TEST_F(AListenerOnTheTimersThread, IsNotWaitedForByATermination) {
    mqtt::test::Watched<bool> terminated;
    ReplyRecorder ending([&](ReplyCall const&) {
        std::thread([this] { client->terminate(); }).join();
        set(terminated);
    });
    ASSERT_EQ(requestFor(&ending, 0), Code::PENDING);
    EXPECT_TRUE(terminated.waitFor(isSet));
    client.reset();
    EXPECT_THAT(ending.errors(), ElementsAre(Code::TIMEOUT));
}

/// The timer would have to end the request that it waits for.
TEST_F(AListenerOnTheTimersThread, DoesNotWait) {
    mqtt::test::Watched<bool> done;
    Code waited = Code::NONE;
    ReplyRecorder ending([&](ReplyCall const&) {
        EXPECT_EQ(request(LONG_TIMEOUT_S), Code::PENDING);
        waited = client->waitEndOfRequest(NO_TIME_LIMIT);
        set(done);
    });
    ASSERT_EQ(requestFor(&ending, 0), Code::PENDING);
    ASSERT_TRUE(done.waitFor(isSet));
    EXPECT_EQ(waited, Code::TIMEOUT);
    client.reset();
}

TEST_F(AListenerOnTheTimersThread, IsWaitedForByADestruction) {
    mqtt::test::Watched<bool> inside;
    std::atomic<bool> left{false};
    ReplyRecorder slow([&](ReplyCall const&) {
        set(inside);
        // The client is terminated then, so that the destruction waits for this call only.
        EXPECT_TRUE(mqtt::test::eventually([this] {
            return client->requestWait(id, Uuid::NIL, nullptr, nullptr, 0) == Code::CANCELLED;
        }));
        left = true;
    });
    ASSERT_EQ(requestFor(&slow, 0), Code::PENDING);
    ASSERT_TRUE(inside.waitFor(isSet));
    client->release();
    EXPECT_TRUE(left);
}

} // namespace
