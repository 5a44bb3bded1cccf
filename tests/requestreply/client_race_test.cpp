// Requests, replies, time-outs and destructions that meet. What these tests cannot see by
// themselves the sanitizers do: they are worth most in such a build.

#include "requestreply/client_frame.hpp"
#include "requestreply/sleeper.hpp"
#include "support/watched.hpp"
#include "support/timeout_factor.hpp"
#include "support/watchdog.hpp"

#include <array>
#include <atomic>
#include <deque>
#include <vector>

namespace {

using support::isSet;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

constexpr auto WITHOUT_LIMIT = UINT32_MAX;
/// Enough of those who wait that the last of them is late.
constexpr std::size_t CROWD = 12;
constexpr int ROUNDS = 200 / support::TIMEOUT_FACTOR;

/// Answers with the number that it was sent.
class Echo : public mqtt::RequestReplyServer::Listener {
public:
    virtual ~Echo() = default;

    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&, zym::common::Uuid const&,
                                                      zym::common::Uuid const&,
                                                      mqtt::RequestReplyData const& requestData,
                                                      Code&) override {
        return std::make_shared<NumberData>(dynamic_cast<NumberData const&>(requestData).number);
    }
};

/// Lets the test do something while a reply is being read, on the worker.
class WatchedData : public NumberData {
public:
    explicit WatchedData(std::function<void()> hook) : hook_(std::move(hook)) {}

    void deserialize(zym::common::lwjson::Deserializer&) override { hook_(); }

private:
    std::function<void()> hook_;
};

class AFastReply : public ClientOnABroker {
protected:
    void expectNeverLost(mqtt::MqttClient& serversMqtt) {
        support::Watchdog::limit(std::chrono::seconds(300));
        mqtt::RequestReplyServer server(serversMqtt, "svc", "time", "sync");
        Echo echo;
        ASSERT_EQ(server.subscribe(&echo, Uuid::NIL, std::make_shared<NumberData>()),
                  mqtt::MqttClient::Error::SUCCESS);
        settle(serversMqtt);
        for (unsigned int round = 1; round <= 1000; ++round) {
            ASSERT_EQ(client->requestWait(id, Uuid::NIL, std::make_shared<NumberData>(round),
                                          replyData, AN_HOUR),
                      Code::SUCCESS);
            ASSERT_EQ(replyData->number, round);
        }
        server.unsubscribeWait();
    }
};

TEST_F(AFastReply, IsNeverLost) {
    auto const serversMqtt = support::testClient(broker);
    expectNeverLost(*serversMqtt);
}

TEST_F(AFastReply, IsNeverLostOnOneMqttClientForBothSides) {
    expectNeverLost(*mqtt);
}

/// Every request follows from inside the listener of the one before.
class AChainOfRequests : public ClientOnABroker {
protected:
    static constexpr unsigned int DEPTH = 100;

    AChainOfRequests() : link([this](Call const& call) { onEnd(call); }) {}
    ~AChainOfRequests() override { client.reset(); }

    /// Requests without any time, whose replies meet the time-out replies, alternate with others
    /// that may end by their reply only.
    bool withoutTime() const { return number % 2 == 1; }

    void next() {
        ++number;
        auto const result =
            client->request(&link, id, Uuid::NIL, std::make_shared<NumberData>(number), replyData,
                            nullptr, withoutTime() ? 0 : WITHOUT_LIMIT);
        EXPECT_EQ(result, Code::PENDING);
    }

    void onEnd(Call const& call) {
        if (call.error == Code::SUCCESS) {
            EXPECT_EQ(replyData->number, number);
        } else {
            EXPECT_EQ(call.error, withoutTime() ? Code::TIMEOUT : Code::SUCCESS);
        }
        EXPECT_GT(call.requestId, lastId);
        lastId = call.requestId;
        if (number < DEPTH) {
            next();
        } else {
            set(done);
        }
    }

    RawServer server{broker, [](std::string const& text) {
                         auto const members = text.substr(text.find("\"number\""));
                         return std::vector<std::string>{"{\"$err\": 1, \"$reqId\": "
                                                         + std::to_string(idIn(text)) + ", "
                                                         + members};
                     }};
    support::Watched<bool> done;
    unsigned int number = 0;
    unsigned int lastId = 0;
    ReplyRecorder link;
};

TEST_F(AChainOfRequests, EndsEachOnceByItsOwnReplyOrTimeOut) {
    next();
    ASSERT_TRUE(done.waitFor(isSet, 4 * support::DEADLINE));
    EXPECT_THAT(link.calls(), SizeIs(DEPTH));
}

class AWait : public ClientOnABroker {};

TEST_F(AWait, BelongsToTheRequestItBeganWith) {
    for (int round = 0; round < ROUNDS; ++round) {
        support::Watched<bool> made;
        ReplyRecorder first([&](Call const&) {
            EXPECT_EQ(request(WITHOUT_LIMIT), Code::PENDING);
            set(made);
        });
        unsigned int firstId = 0;
        ASSERT_EQ(
            client->request(&first, id, Uuid::NIL, nullptr, replyData, &firstId, WITHOUT_LIMIT),
            Code::PENDING);
        Code result = Code::NONE;
        Sleeper waiter([&] { result = client->waitEndOfRequest(WITHOUT_LIMIT); });
        ASSERT_TRUE(waiter.fallsAsleep());
        requestId = firstId;
        reply(replyText(firstId, 17));
        waiter.join();
        ASSERT_EQ(result, FAILURE_OF_THE_SERVICE);
        ASSERT_TRUE(made.waitFor(isSet));
        client->cancel();
        receiveAll();
        peer.clearMessages();
    }
    EXPECT_THAT(recorder.errors(), Each(Code::CANCELLED));
    EXPECT_THAT(recorder.errors(), SizeIs(ROUNDS));
}

TEST_F(AWait, IsOverBeforeTheListenerHearsOfACancellation) {
    for (int round = 0; round < ROUNDS / 4; ++round) {
        // Nobody may be left inside what is destroyed here.
        ReplyRecorder ending([&](Call const&) { client.reset(); });
        ASSERT_EQ(client->request(&ending, id, Uuid::NIL, nullptr, replyData, nullptr, AN_HOUR),
                  Code::PENDING);
        auto* const waited = client.get();
        std::array<Code, CROWD> results{};
        std::deque<Sleeper> waiters;
        for (auto& result : results) {
            waiters.emplace_back(
                [waited, &result] { result = waited->waitEndOfRequest(WITHOUT_LIMIT); });
        }
        for (auto const& waiter : waiters) {
            ASSERT_TRUE(waiter.fallsAsleep());
        }
        EXPECT_EQ(waited->cancel(), Code::SUCCESS);
        waiters.clear();
        EXPECT_THAT(results, Each(Code::CANCELLED));
        EXPECT_THAT(ending.errors(), ElementsAre(Code::CANCELLED));
        client = makeClient();
    }
}

TEST_F(AWait, IsOverBeforeTheClientIs) {
    for (int round = 0; round < ROUNDS / 4; ++round) {
        ReplyRecorder ending([&](Call const&) { client.reset(); });
        ASSERT_EQ(client->request(&ending, id, Uuid::NIL, nullptr, replyData, &requestId, AN_HOUR),
                  Code::PENDING);
        auto* const waited = client.get();
        std::array<Code, CROWD> results{};
        std::deque<Sleeper> waiters;
        for (auto& result : results) {
            waiters.emplace_back(
                [waited, &result] { result = waited->waitEndOfRequest(WITHOUT_LIMIT); });
        }
        for (auto const& waiter : waiters) {
            ASSERT_TRUE(waiter.fallsAsleep());
        }
        reply(replyText(requestId, 17));
        waiters.clear();
        EXPECT_THAT(results, Each(FAILURE_OF_THE_SERVICE));
        receiveAll();
        EXPECT_THAT(ending.errors(), ElementsAre(FAILURE_OF_THE_SERVICE));
        client = makeClient();
        peer.clearMessages();
    }
}

/// The end of a client inside its own listener.
class AListenerThatDestroysItsClient : public ClientOnABroker {
protected:
    AListenerThatDestroysItsClient() {
        EXPECT_EQ(client->request(&ending, id, Uuid::NIL, nullptr, replyData, &requestId, AN_HOUR),
                  Code::PENDING);
    }

    void expectEnd(Code error) {
        receiveAll();
        EXPECT_EQ(client, nullptr);
        EXPECT_THAT(ending.errors(), ElementsAre(error));
    }

    ReplyRecorder ending{[this](Call const&) { client.reset(); }};
};

TEST_F(AListenerThatDestroysItsClient, DoesSoWithTheReply) {
    reply(replyText(requestId, 1));
    ASSERT_TRUE(ending.waitForCount(1));
    expectEnd(Code::SUCCESS);
}

TEST_F(AListenerThatDestroysItsClient, DoesSoWhenTheRequestIsCancelled) {
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    expectEnd(Code::CANCELLED);
}

TEST_F(AListenerThatDestroysItsClient, DoesSoWhenTheClientIsTerminated) {
    client->terminate();
    expectEnd(Code::CANCELLED);
}

TEST_F(AListenerThatDestroysItsClient, DoesSoWhenAWaitRunsOut) {
    EXPECT_EQ(client->waitEndOfRequest(0), Code::TIMEOUT);
    expectEnd(Code::TIMEOUT);
}

TEST_F(AListenerThatDestroysItsClient, DoesSoWithTheTimeOutReply) {
    client->cancel();
    client = makeClient();
    ReplyRecorder second([this](Call const&) { client.reset(); });
    ASSERT_EQ(client->request(&second, id, Uuid::NIL, nullptr, replyData, nullptr, 0),
              Code::PENDING);
    ASSERT_TRUE(second.waitForCount(1));
    receiveAll();
    EXPECT_EQ(client, nullptr);
    EXPECT_THAT(second.errors(), ElementsAre(Code::TIMEOUT));
}

/// On the timer's thread, which ends a request when the broker does not carry its time-out reply.
class AListenerOnTheTimersThread : public ClientOnABroker {
protected:
    AListenerOnTheTimersThread() { client = makeClient("+"); } // no such topic can be

    void requestFor(ReplyRecorder& listener) {
        ASSERT_EQ(client->request(&listener, id, Uuid::NIL, nullptr, nullptr, nullptr, 0),
                  Code::PENDING);
    }
};

TEST_F(AListenerOnTheTimersThread, MayDestroyTheClient) {
    support::Watched<bool> gone;
    ReplyRecorder ending([&](Call const&) {
        client.reset();
        set(gone);
    });
    requestFor(ending);
    ASSERT_TRUE(gone.waitFor(isSet));
    EXPECT_THAT(ending.errors(), ElementsAre(Code::TIMEOUT));
}

TEST_F(AListenerOnTheTimersThread, KeepsNobodyWaitingWhoTerminatesTheClient) {
    support::Watched<bool> terminated;
    ReplyRecorder ending([&](Call const&) {
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
    ReplyRecorder ending([&](Call const&) {
        EXPECT_EQ(request(AN_HOUR), Code::PENDING);
        waited = client->waitEndOfRequest(WITHOUT_LIMIT);
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
    ReplyRecorder slow([&](Call const&) {
        set(inside);
        // Ended, so that the destruction has nothing else to wait for.
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

class TheEndOfARequestReplyClient : public ClientOnABroker {};

TEST_F(TheEndOfARequestReplyClient, WaitsForItsListener) {
    support::Watched<bool> entered;
    std::atomic<bool> left{false};
    Sleeper* ender = nullptr;
    ReplyRecorder slow([&](Call const&) {
        entered.waitFor(isSet);
        EXPECT_TRUE(ender->fallsAsleep());
        left = true;
    });
    ASSERT_EQ(client->request(&slow, id, Uuid::NIL, nullptr, replyData, &requestId, AN_HOUR),
              Code::PENDING);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(slow.waitForCount(1));
    Sleeper destruction([&] {
        client.reset();
        EXPECT_TRUE(left);
    });
    ender = &destruction;
    set(entered);
    destruction.join();
}

/// Not only the worker tells a listener: who calls a request off does, and whose wait runs out.
TEST_F(TheEndOfARequestReplyClient, WaitsForAListenerThatAnotherCallerTells) {
    std::vector<std::function<void()>> const calls{
        [this] { client->cancel(); },
        [this] { client->waitEndOfRequest(0); },
        [this] { client->terminate(); },
    };
    for (auto const& call : calls) {
        support::Watched<bool> inside;
        support::Watched<bool> gone;
        ReplyRecorder slow([&](Call const&) {
            set(inside);
            EXPECT_FALSE(gone.waitFor(isSet, A_WHILE)) << "gone while its listener was being told";
        });
        ASSERT_EQ(client->request(&slow, id, Uuid::NIL, nullptr, replyData, nullptr, AN_HOUR),
                  Code::PENDING);
        std::thread caller(call);
        ASSERT_TRUE(inside.waitFor(isSet));
        client.reset();
        set(gone);
        caller.join();
        client = makeClient();
    }
}

TEST_F(TheEndOfARequestReplyClient, SparesAReplyThatIsBeingRead) {
    for (int round = 0; round < ROUNDS; ++round) {
        support::Watched<bool> reading;
        support::Watched<bool> ending;
        auto const data = std::make_shared<WatchedData>([&] {
            set(reading);
            ending.waitFor(isSet);
        });
        ReplyRecorder last;
        ASSERT_EQ(client->request(&last, id, Uuid::NIL, nullptr, data, &requestId, AN_HOUR),
                  Code::PENDING);
        reply(replyText(requestId, 1));
        ASSERT_TRUE(reading.waitFor(isSet));
        Sleeper destruction([&] { client.reset(); });
        ASSERT_TRUE(destruction.fallsAsleep());
        // Now the reader finds a client whose end has begun.
        set(ending);
        destruction.join();
        EXPECT_THAT(last.errors(), ElementsAre(Code::CANCELLED));
        client = makeClient();
        peer.clearMessages();
    }
}

TEST_F(TheEndOfARequestReplyClient, ComesAtAnyMomentWhileRepliesFly) {
    auto const serversMqtt = support::testClient(broker);
    mqtt::RequestReplyServer server(*serversMqtt, "svc", "time", "sync");
    Echo echo;
    ASSERT_EQ(server.subscribe(&echo, Uuid::NIL, std::make_shared<NumberData>()),
              mqtt::MqttClient::Error::SUCCESS);
    for (int round = 0; round < 3 * ROUNDS; ++round) {
        auto listener = std::make_unique<ReplyRecorder>();
        ASSERT_EQ(client->request(listener.get(), id, Uuid::NIL, std::make_shared<NumberData>(7),
                                  replyData, nullptr, round % 4 == 0 ? 0 : AN_HOUR),
                  Code::PENDING);
        // From before the request arrives to after its reply does.
        auto const moment =
            std::chrono::steady_clock::now() + std::chrono::microseconds(10 * (round % 100));
        while (std::chrono::steady_clock::now() < moment) {
            std::this_thread::yield();
        }
        client.reset();
        ASSERT_EQ(listener->count(), 1U) << "in round " << round;
        listener.reset();
        client = makeClient();
    }
    client.reset();
}

/// One client that several threads use as they like.
class ASharedClient : public ClientOnABroker {};

TEST_F(ASharedClient, EndsEveryRequestOnceWhateverThreadsDo) {
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
            client->waitEndOfRequest(WITHOUT_LIMIT);
            if (i % 8 == 0) {
                client->cancel();
            }
        }
    });
    std::deque<ReplyRecorder> listeners;
    for (int round = 0; round < 5 * ROUNDS; ++round) {
        auto& listener = listeners.emplace_back();
        ASSERT_TRUE(support::eventually([&] {
            auto const result = client->request(&listener, id, Uuid::NIL, nullptr, replyData,
                                                nullptr, round % 3 == 0 ? 0 : AN_HOUR);
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
