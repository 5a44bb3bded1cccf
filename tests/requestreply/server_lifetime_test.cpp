// Servers that end while requests arrive. Some defects here are seen by a sanitizer only.

#include "requestreply/server_fixture.hpp"

#include <atomic>
#include <stdexcept>

namespace {

using support::isSet;
using testing::ElementsAre;
using testing::IsEmpty;
using Data = ServerListener::Data;

class TheEndOfAServer : public ServerOnABroker {
protected:
    void expectANewServerReplies() {
        ServerListener next;
        server = serve(&next);
        request(3);
        EXPECT_THAT(replyPayloads(), ElementsAre(reply(3, 1)));
        server.reset();
    }

    ServerListener listener;
    std::unique_ptr<Server> server = serve(&listener);
};

TEST_F(TheEndOfAServer, WaitsForTheRequestBeingHandledAndItsReply) {
    support::Watched<bool> entered;
    support::Watched<bool> destroyed;
    listener.setAnswer([&](auto const&, auto&) {
        set(entered);
        EXPECT_FALSE(destroyed.waitFor(isSet, OBSERVATION_TIME));
        return std::make_shared<NumberData>(7);
    });
    request(1);
    ASSERT_TRUE(entered.waitFor(isSet));
    server.reset();
    set(destroyed);
    EXPECT_THAT(replyPayloads(),
                ElementsAre("{\n  \"$reqId\": 1,\n  \"$err\": 1,\n  \"number\": 7\n}"));
}

TEST_F(TheEndOfAServer, ComesInsideItsListenersCallWithoutAReply) {
    listener.setAnswer([&](auto const&, auto&) {
        server.reset();
        return nullptr;
    });
    request(1);
    request(2);
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 1U);
    expectANewServerReplies();
}

TEST_F(TheEndOfAServer, ComesInsideTheFirstOfTwoCallsWhichThrows) {
    ASSERT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    listener.setAnswer([&](auto const&, auto&) -> Data {
        server.reset();
        throw std::runtime_error("no");
    });
    request(1);
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 1U);
    expectANewServerReplies();
}

TEST_F(TheEndOfAServer, MayIncludeItsListener) {
    auto own = std::make_unique<ServerListener>();
    server = serve(own.get());
    own->setAnswer([&](auto const&, auto&) {
        server.reset();
        own.reset();
        return nullptr;
    });
    request(1);
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(own, nullptr);
}

TEST_F(TheEndOfAServer, LeavesTheOtherServersServing) {
    ServerListener other;
    auto const second = serve(&other);
    server.reset();
    request(1);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1)));
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(other.count(), 1U);
}

TEST_F(TheEndOfAServer, MayComeWithoutAConnection) {
    broker.kill();
    ASSERT_TRUE(support::eventually(
        [&] { return mqtt->communicationState() != conv::ComState::CONNECTED; }));
    server.reset();
}

TEST_F(TheEndOfAServer, IsNotAnUnsubscriptionInsideItsListenersCall) {
    listener.setAnswer([&](auto const&, auto&) {
        EXPECT_EQ(server->unsubscribe(), Error::SUCCESS);
        return nullptr;
    });
    request(1);
    request(2);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1))) << "the request being handled";
    EXPECT_EQ(listener.count(), 1U);
}

} // namespace
