#include "client/scripted_session.hpp"

#include <gmock/gmock.h>

#include <optional>
#include <thread>

namespace {

using conv::SecondsDuration;
using support::MqttPacket;
using support::ScriptedServer;
using testing::ElementsAre;
using testing::IsEmpty;

class AWaitForAnUnsubscription : public ScriptedSession {};

TEST_F(AWaitForAnUnsubscription, EndsWithTheAcknowledgement) {
    for (SecondsDuration const limit : {SecondsDuration(30), SecondsDuration::NO_TIMEOUT}) {
        subscribe("a", first);
        EXPECT_EQ(client->unsubscribeWait("a", &first, limit), Error::SUCCESS);
        EXPECT_EQ(client->unsubscribeWait("a", &first, limit), Error::NOT_FOUND);
    }
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), ElementsAre("a", "a"));
}

TEST_F(AWaitForAnUnsubscription, EndsByTimeoutWithoutItsOwnAcknowledgement) {
    server.setHook([](MqttPacket const& packet) {
        bool const unanswered = packet.type == Type::UNSUBSCRIBE && packet.topic != "answered";
        return unanswered ? ScriptedServer::Reaction::IGNORE : ScriptedServer::Reaction::ANSWER;
    });
    for (unsigned const seconds : {0U, 1U}) {
        subscribe("answered", first);
        subscribe("a", first);
        EXPECT_EQ(client->unsubscribe("answered", &first), Error::SUCCESS);
        EXPECT_EQ(client->unsubscribeWait("a", &first, seconds), Error::TIMEOUT);
        EXPECT_EQ(client->unsubscribe("a", &first), Error::NOT_FOUND) << "it is still registered";
    }
    EXPECT_TRUE(server.waitForPackets(Type::UNSUBSCRIBE, 4));
}

TEST_F(AWaitForAnUnsubscription, EndsAtOnceWhenNothingIsSent) {
    subscribe("a", first);
    subscribe("a", second);
    EXPECT_EQ(client->unsubscribeWait("a", &first, SecondsDuration::NO_TIMEOUT), Error::NOT_FOUND)
        << "another subscriber is left";
    sendAll();
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), IsEmpty());
    ASSERT_EQ(client->disconnect(WAIT_SECONDS), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribeWait("a", &second, SecondsDuration::NO_TIMEOUT), Error::NO_CONN);
    EXPECT_EQ(client->unsubscribe("a", &second), Error::NOT_FOUND) << "it is still registered";
}

TEST_F(AWaitForAnUnsubscription, InsideACallbackEndsAtOnceByTimeout) {
    support::Watched<std::optional<Error>> result;
    support::MessageRecorder waiting([&](auto&&...) {
        auto const error = client->unsubscribeWait("a", &waiting, SecondsDuration::NO_TIMEOUT);
        result.change([&](auto& value) { value = error; });
    });
    subscribe("a", waiting);
    send("a", "x");
    ASSERT_TRUE(result.waitFor([](auto const& value) { return value.has_value(); }));
    EXPECT_EQ(result.copy(), Error::TIMEOUT);
    EXPECT_TRUE(server.waitForPackets(Type::UNSUBSCRIBE, 1));
    EXPECT_EQ(client->unsubscribe("a", &waiting), Error::NOT_FOUND) << "it is still registered";
    receiveAll();
}

TEST_F(AWaitForAnUnsubscription, CanBeMadeByManyThreadsAtATime) {
    // One wait may miss its acknowledgement because of another, but none lasts beyond its time.
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, topic = "many/" + std::to_string(i)] {
            EXPECT_EQ(client->subscribe(topic, &first, 0), Error::SUCCESS);
            EXPECT_THAT(client->unsubscribeWait(topic, &first, 1),
                        testing::AnyOf(Error::SUCCESS, Error::TIMEOUT));
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(server.waitForPackets(Type::UNSUBSCRIBE, 4));
}

} // namespace
