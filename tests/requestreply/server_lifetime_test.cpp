// Servers that end while requests arrive. Some defects here are seen by a sanitizer only.

#include "requestreply/sample_data.hpp"
#include "requestreply/server_fixture.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace {

using support::isSet;
using support::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using Data = ServerListener::Data;

/// How long a test watches that something does not happen. A correct server never fails by it.
constexpr std::chrono::milliseconds OBSERVATION_TIME{300};

class TheEndOfAServer : public ServerOnABroker {
protected:
    void expectANewServerReplies() {
        ServerListener next;
        server = serve(&next);
        request(R"({"$reqId": 3})");
        EXPECT_THAT(replyPayloads(), ElementsAre(reply(3, 1)));
        server.reset();
    }

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
        EXPECT_FALSE(destroyed.waitFor(isSet, OBSERVATION_TIME));
        left = true;
        return std::make_shared<NumberData>(7);
    });
    request(R"({"$reqId": 1})");
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
    request(R"({"$reqId": 1})");
    request(R"({"$reqId": 2})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 1U);
    expectANewServerReplies();
}

TEST_F(TheEndOfAServer, ComesInsideTheFirstOfTwoCallsWhichThrows) {
    server = serve(&listener);
    ASSERT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    listener.setAnswer([&](auto const&, auto&) -> Data {
        server.reset();
        throw std::runtime_error("no");
    });
    request(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 1U);
    expectANewServerReplies();
}

TEST_F(TheEndOfAServer, MayIncludeItsListener) {
    auto doomed = std::make_unique<ServerListener>();
    server = serve(doomed.get());
    doomed->setAnswer([&](auto const&, auto&) {
        server.reset();
        doomed.reset();
        return nullptr;
    });
    request(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(doomed, nullptr);
}

TEST_F(TheEndOfAServer, LeavesTheOtherServersServing) {
    ServerListener other;
    server = serve(&listener);
    auto const second = serve(&other);
    server.reset();
    request(R"({"$reqId": 1})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1)));
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(other.count(), 1U);
}

TEST_F(TheEndOfAServer, MayComeWithoutAConnection) {
    server = serve(&listener);
    broker.kill();
    ASSERT_TRUE(support::eventually(
        [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
    server.reset();
}

TEST_F(TheEndOfAServer, IsNotAnUnsubscriptionInsideItsListenersCall) {
    server = serve(&listener);
    listener.setAnswer([&](auto const&, auto&) {
        EXPECT_EQ(server->unsubscribe(), Error::SUCCESS);
        return nullptr;
    });
    request(R"({"$reqId": 1})");
    request(R"({"$reqId": 2})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1))) << "the request being handled";
    EXPECT_EQ(listener.count(), 1U);
}

class AServerOnABroker : public ServerOnABroker {};

TEST_F(AServerOnABroker, NamesItsTopicToAnyThreadWhileItServes) {
    ServerListener listener;
    auto const server = serve(&listener);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            EXPECT_EQ(server->requestTopic(), "x/n?\?");
        }
    });
    for (int id = 0; id < 100; ++id) {
        peer.post("x/n?\?/" + CLIENT_ID, R"({"$reqId": 1})");
    }
    EXPECT_TRUE(support::eventually([&] { return listener.count() == 100; }));
    server->unsubscribe();
    EXPECT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    stop = true;
    reader.join();
}

} // namespace
