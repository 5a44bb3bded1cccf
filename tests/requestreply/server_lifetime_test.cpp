// Servers that come and go while requests fly. Some of this only a sanitizer can see.

#include "sample_data.hpp"
#include "server_session.hpp"

#include "support/watched.hpp"
#include "support/timeout_factor.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace {

using mqtt::Topic;
using support::isSet;
using support::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using Data = ServerListener::Data;

/// Long enough to see that something waits; it never makes a right server fail.
constexpr std::chrono::milliseconds A_WHILE{300};

class TheEndOfAServer : public ServerSession {
protected:
    ServerListener listener;
    std::unique_ptr<Server> server;
};

TEST_F(TheEndOfAServer, WaitsForTheRequestBeingHandledAndItsReply) {
    Watched<bool> entered;
    Watched<bool> destroyed;
    std::atomic<bool> left{false};
    server = serve(&listener);
    listener.setAnswer([&](auto const&, auto&) {
        set(entered);
        EXPECT_FALSE(destroyed.waitFor(isSet, A_WHILE));
        left = true;
        return std::make_shared<NumberData>(7);
    });
    ask(R"({"$reqId": 1})");
    ASSERT_TRUE(entered.waitFor(isSet));
    server.reset();
    EXPECT_TRUE(left);
    set(destroyed);
    EXPECT_THAT(replyPayloads(),
                ElementsAre("{\n  \"$reqId\": 1,\n  \"$err\": 1,\n  \"number\": 7\n}"));
}

TEST_F(TheEndOfAServer, ComesInsideItsListenersCallWithoutAReply) {
    server = serve(&listener);
    listener.setAnswer([&](auto const&, auto&) {
        server.reset();
        return nullptr;
    });
    ask(R"({"$reqId": 1})");
    ask(R"({"$reqId": 2})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 1U);
    ServerListener next;
    server = serve(&next);
    ask(R"({"$reqId": 3})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(3, 1)));
}

TEST_F(TheEndOfAServer, ComesInsideItsListenersCallThatThrows) {
    server = serve(&listener);
    listener.setAnswer([&](auto const&, auto&) -> Data {
        server.reset();
        throw std::runtime_error("no");
    });
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    ServerListener next;
    server = serve(&next);
    ask(R"({"$reqId": 3})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(3, 1)));
}

TEST_F(TheEndOfAServer, ComesInsideTheFirstOfTwoAnswers) {
    server = serve(&listener);
    ASSERT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    listener.setAnswer([&](auto const&, auto&) {
        server.reset();
        return nullptr;
    });
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(TheEndOfAServer, MayTakeItsListenerAlong) {
    auto doomed = std::make_unique<ServerListener>();
    server = serve(doomed.get());
    doomed->setAnswer([&](auto const&, auto&) {
        server.reset();
        doomed.reset();
        return nullptr;
    });
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(doomed, nullptr);
}

TEST_F(TheEndOfAServer, LetsTheListenerGoAtOnce) {
    for (int i = 0; i < 40 / support::TIMEOUT_FACTOR; ++i) {
        auto own = std::make_unique<ServerListener>();
        Watched<bool> entered;
        own->setAnswer([&](auto const&, auto&) {
            set(entered);
            return nullptr;
        });
        server = serve(own.get());
        for (int id = 0; id < 20; ++id) {
            peer.post("x/n?\?/" + CALLER, R"({"$reqId": 1})");
        }
        ASSERT_TRUE(entered.waitFor(isSet));
        server.reset();
        own.reset();
    }
}

TEST_F(TheEndOfAServer, LeavesItsCallersToTheirTimeouts) {
    server = serve(&listener);
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    std::thread asking([&] {
        auto const own = support::testClient(broker);
        mqtt::RequestReplyClient caller(*own, "x", Topic(), "n");
        while (!stop) {
            auto const error = caller.requestWait(Uuid(1), Uuid(), nullptr, nullptr, 1);
            // NO_LISTENER: on its way to a server that was just ending.
            EXPECT_TRUE(error == ErrorCode::SUCCESS || error == ErrorCode::TIMEOUT
                        || error == ErrorCode::NO_LISTENER);
            answered += error == ErrorCode::SUCCESS ? 1 : 0;
        }
    });
    for (int i = 0; i < 5; ++i) {
        auto const before = answered.load();
        EXPECT_TRUE(support::eventually([&] { return answered > before; }));
        server.reset();
        server = serve(&listener);
    }
    stop = true;
    asking.join();
}

TEST_F(TheEndOfAServer, MayComeOnTwoServersOfOneNameAtOnce) {
    ServerListener other;
    server = serve(&listener);
    auto second = serve(&other);
    for (int id = 0; id < 100; ++id) {
        peer.post("x/n?\?/" + CALLER, R"({"$reqId": 1})");
    }
    ASSERT_TRUE(support::eventually([&] { return listener.count() > 0; }));
    std::thread thread([&] { second.reset(); });
    server.reset();
    thread.join();
    peer.waitForAcknowledgements();
    auto const before = listener.count() + other.count();
    ask(R"({"$reqId": 2})");
    settle();
    EXPECT_EQ(listener.count() + other.count(), before);
}

TEST_F(TheEndOfAServer, LeavesTheOtherServersServing) {
    ServerListener other;
    server = serve(&listener);
    auto const second = serve(&other);
    server.reset();
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1)));
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(other.count(), 1U);
}

TEST_F(TheEndOfAServer, ComesWithoutAConnectionToo) {
    server = serve(&listener);
    broker.kill();
    ASSERT_TRUE(support::eventually(
        [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
    server.reset();
}

TEST_F(TheEndOfAServer, MayBeTheEndOfServingOnly) {
    server = serve(&listener);
    listener.setAnswer([&](auto const&, auto&) {
        EXPECT_EQ(server->unsubscribe(), Error::SUCCESS);
        return nullptr;
    });
    ask(R"({"$reqId": 1})");
    ask(R"({"$reqId": 2})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1))) << "the one being handled still is";
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(TheEndOfAServer, IsNoDangerToWhoAsksForItsTopicMeanwhile) {
    server = serve(&listener);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            EXPECT_EQ(server->requestTopic(), "x/n?\?");
        }
    });
    for (int id = 0; id < 100; ++id) {
        peer.post("x/n?\?/" + CALLER, R"({"$reqId": 1})");
    }
    EXPECT_TRUE(support::eventually([&] { return listener.count() == 100; }));
    server->unsubscribe();
    EXPECT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    stop = true;
    reader.join();
}

} // namespace
