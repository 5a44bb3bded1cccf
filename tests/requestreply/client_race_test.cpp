// Requests, replies, time-outs and destructions at the same time. Some defects here are seen by a
// sanitizer only.

#include "requestreply/blocking_thread.hpp"
#include "requestreply/client_fixture.hpp"
#include "requestreply/rounds.hpp"
#include "support/watched.hpp"

#include <array>
#include <atomic>
#include <deque>
#include <vector>

namespace {

using support::isSet;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

class AWait : public ClientOnABroker {};

TEST_F(AWait, BelongsToTheRequestItBeganWith) {
    int const count = rounds(20);
    for (int round = 0; round < count; ++round) {
        support::Watched<bool> made;
        ReplyRecorder first([&](ReplyCall const&) {
            EXPECT_EQ(request(NO_TIME_LIMIT), Code::PENDING);
            set(made);
        });
        unsigned int firstId = 0;
        ASSERT_EQ(
            client->request(&first, id, Uuid::NIL, nullptr, replyData, &firstId, NO_TIME_LIMIT),
            Code::PENDING);
        Code result = Code::NONE;
        BlockingThread waiter([&] { result = client->waitEndOfRequest(NO_TIME_LIMIT); });
        ASSERT_TRUE(waiter.isBlocked());
        requestId = firstId;
        reply(replyText(firstId, 17));
        waiter.join();
        ASSERT_EQ(result, SERVICE_ERROR);
        ASSERT_TRUE(made.waitFor(isSet));
        client->cancel();
        receiveAll();
        peer.clearMessages();
    }
    EXPECT_THAT(recorder.errors(), Each(Code::CANCELLED));
    EXPECT_THAT(recorder.errors(), SizeIs(count));
}

/// The listener destroys the client, so that no thread may still be inside a wait.
TEST_F(AWait, IsOverBeforeItsClientIsDestroyed) {
    int const count = rounds(10);
    for (int round = 0; round < count; ++round) {
        bool const cancels = round % 2 == 0;
        ReplyRecorder ending([&](ReplyCall const&) { client.reset(); });
        ASSERT_EQ(
            client->request(&ending, id, Uuid::NIL, nullptr, replyData, &requestId, LONG_TIMEOUT_S),
            Code::PENDING);
        auto* const waited = client.get();
        std::array<Code, 12> results{}; // so many that the last one is late
        std::deque<BlockingThread> waiters;
        for (auto& result : results) {
            waiters.emplace_back(
                [waited, &result] { result = waited->waitEndOfRequest(NO_TIME_LIMIT); });
        }
        for (auto const& waiter : waiters) {
            ASSERT_TRUE(waiter.isBlocked());
        }
        if (cancels) {
            EXPECT_EQ(waited->cancel(), Code::SUCCESS);
        } else {
            reply(replyText(requestId, 17));
        }
        waiters.clear();
        receiveAll();
        auto const expected = cancels ? Code::CANCELLED : SERVICE_ERROR;
        EXPECT_THAT(results, Each(expected));
        EXPECT_THAT(ending.errors(), ElementsAre(expected));
        client = makeClient();
        peer.clearMessages();
    }
}

/// What ends a request of the fixture, and the error that the listener gets.
struct EndOfARequest {
    std::uint32_t timeout;
    Code error;
    std::function<void()> end;
};

class AListener : public ClientOnABroker {
protected:
    std::vector<EndOfARequest> const ends{
        {LONG_TIMEOUT_S, Code::SUCCESS, [this] { reply(replyText(requestId, 1)); }},
        {LONG_TIMEOUT_S, Code::CANCELLED, [this] { client->cancel(); }},
        {LONG_TIMEOUT_S, Code::CANCELLED, [this] { client->terminate(); }},
        {LONG_TIMEOUT_S, Code::TIMEOUT, [this] { client->waitEndOfRequest(0); }},
        {0, Code::TIMEOUT, [] {}}}; // by the time-out reply
};

TEST_F(AListener, MayDestroyItsClientWhateverEndedTheRequest) {
    for (auto const& [timeout, error, end] : ends) {
        SCOPED_TRACE(error);
        support::Watched<bool> gone;
        ReplyRecorder ending([&](ReplyCall const&) {
            client.reset();
            set(gone);
        });
        auto* const which = client.get();
        ASSERT_EQ(which->request(&ending, id, Uuid::NIL, nullptr, replyData, &requestId, timeout),
                  Code::PENDING);
        end();
        ASSERT_TRUE(gone.waitFor(isSet));
        receiveAll();
        EXPECT_THAT(ending.errors(), ElementsAre(error));
        client = makeClient();
        peer.clearMessages();
    }
}

TEST_F(AListener, IsWaitedForByADestructionWhateverThreadCallsIt) {
    for (auto const& [timeout, error, end] : ends) {
        SCOPED_TRACE(error);
        support::Watched<bool> inside;
        support::Watched<bool> gone;
        ReplyRecorder slow([&, &expected = error](ReplyCall const& call) {
            EXPECT_EQ(call.error, expected);
            set(inside);
            EXPECT_FALSE(gone.waitFor(isSet, OBSERVATION_TIME)) << "during the listener's call";
        });
        ASSERT_EQ(client->request(&slow, id, Uuid::NIL, nullptr, replyData, &requestId, timeout),
                  Code::PENDING);
        std::thread caller(end);
        ASSERT_TRUE(inside.waitFor(isSet));
        client.reset();
        set(gone);
        caller.join();
        client = makeClient();
        peer.clearMessages();
    }
}

/// The timer's thread ends a request to an invalid topic.
class AListenerOnTheTimersThread : public ClientOnABroker {
protected:
    AListenerOnTheTimersThread() { client = makeClient("+"); }

    void requestFor(ReplyRecorder& listener) {
        ASSERT_EQ(client->request(&listener, id, Uuid::NIL, nullptr, nullptr, nullptr, 0),
                  Code::PENDING);
    }
};

TEST_F(AListenerOnTheTimersThread, MayDestroyTheClient) {
    support::Watched<bool> gone;
    ReplyRecorder ending([&](ReplyCall const&) {
        client.reset();
        set(gone);
    });
    requestFor(ending);
    ASSERT_TRUE(gone.waitFor(isSet));
    EXPECT_THAT(ending.errors(), ElementsAre(Code::TIMEOUT));
}

TEST_F(AListenerOnTheTimersThread, IsNotWaitedForByATermination) {
    support::Watched<bool> terminated;
    ReplyRecorder ending([&](ReplyCall const&) {
        std::thread([this] { client->terminate(); }).join();
        set(terminated);
    });
    requestFor(ending);
    EXPECT_TRUE(terminated.waitFor(isSet));
    client.reset();
    EXPECT_THAT(ending.errors(), ElementsAre(Code::TIMEOUT));
}

/// The timer would have to end the request that it waits for.
TEST_F(AListenerOnTheTimersThread, DoesNotWait) {
    support::Watched<bool> done;
    Code waited = Code::NONE;
    ReplyRecorder ending([&](ReplyCall const&) {
        EXPECT_EQ(request(LONG_TIMEOUT_S), Code::PENDING);
        waited = client->waitEndOfRequest(NO_TIME_LIMIT);
        set(done);
    });
    requestFor(ending);
    ASSERT_TRUE(done.waitFor(isSet));
    EXPECT_EQ(waited, Code::TIMEOUT);
    client.reset();
}

TEST_F(AListenerOnTheTimersThread, IsWaitedForByADestruction) {
    support::Watched<bool> inside;
    std::atomic<bool> left{false};
    ReplyRecorder slow([&](ReplyCall const&) {
        set(inside);
        // The client is terminated then, so that the destruction waits for this call only.
        EXPECT_TRUE(support::eventually([this] {
            return client->requestWait(id, Uuid::NIL, nullptr, nullptr, 0) == Code::CANCELLED;
        }));
        left = true;
    });
    requestFor(slow);
    ASSERT_TRUE(inside.waitFor(isSet));
    client->release();
    EXPECT_TRUE(left);
}

/// One client that several threads use.
class ASharedClient : public ClientOnABroker {};

TEST_F(ASharedClient, EndsEveryRequestOnceInManyRounds) {
    RawServer const server(broker, [](std::string const& text) {
        return std::vector<std::string>{replyText(idIn(text), 1), replyText(idIn(text), 17)};
    });
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                client->waitEndOfRequest(1);
            }
        });
    }
    threads.emplace_back([&] {
        for (unsigned int i = 0; !stop; ++i) {
            client->waitEndOfRequest(NO_TIME_LIMIT);
            if (i % 8 == 0) {
                client->cancel();
            }
        }
    });
    std::deque<ReplyRecorder> listeners;
    int const count = rounds(200);
    for (int round = 0; round < count; ++round) {
        auto& listener = listeners.emplace_back();
        ASSERT_TRUE(support::eventually([&] {
            auto const result = client->request(&listener, id, Uuid::NIL, nullptr, replyData,
                                                nullptr, round % 3 == 0 ? 0 : LONG_TIMEOUT_S);
            return result == Code::PENDING;
        }));
    }
    stop = true;
    client->terminate();
    for (auto& thread : threads) {
        thread.join();
    }
    receiveAll();
    for (auto const& listener : listeners) {
        ASSERT_EQ(listener.count(), 1U);
    }
}

} // namespace
