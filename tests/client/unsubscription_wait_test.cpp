#include "client/scripted_session.hpp"

#include "support/broker.hpp"

#include <gmock/gmock.h>

namespace {

using support::MqttPacket;
using testing::ElementsAre;
using testing::IsEmpty;

class AWaitForAnUnsubscription : public ScriptedSession {};

TEST_F(AWaitForAnUnsubscription, EndsWithTheAcknowledgement) {
    subscribe("a", first);
    EXPECT_EQ(client->unsubscribeWait("a", &first, 30), Error::SUCCESS);
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), ElementsAre("a"));
    EXPECT_EQ(client->unsubscribeWait("a", &first, 30), Error::NOT_FOUND);
}

TEST_F(AWaitForAnUnsubscription, EndsByTimeOutWithoutAnAcknowledgement) {
    server.hold(Type::UNSUBSCRIBE);
    subscribe("a", first);
    EXPECT_EQ(client->unsubscribeWait("a", &first, 1), Error::TIMEOUT);
    EXPECT_EQ(client->unsubscribe("a", &first), Error::NOT_FOUND) << "it is registered still";
}

TEST_F(AWaitForAnUnsubscription, OfNoLengthEndsByTimeOutAtOnce) {
    server.hold(Type::UNSUBSCRIBE);
    subscribe("a", first);
    EXPECT_EQ(client->unsubscribeWait("a", &first, 0), Error::TIMEOUT);
    EXPECT_TRUE(server.waitForPackets(Type::UNSUBSCRIBE, 1));
}

TEST_F(AWaitForAnUnsubscription, IsNotEndedByTheAcknowledgementOfAnother) {
    server.setHook([](MqttPacket const& packet) {
        bool const ours = packet.type == Type::UNSUBSCRIBE && packet.topic == "b";
        return ours ? support::ScriptedServer::Reaction::IGNORE
                    : support::ScriptedServer::Reaction::ANSWER;
    });
    subscribe("a", first);
    subscribe("b", first);
    EXPECT_EQ(client->unsubscribe("a", &first), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribeWait("b", &first, 1), Error::TIMEOUT);
}

TEST_F(AWaitForAnUnsubscription, WithoutLimitEndsWithTheAcknowledgementToo) {
    subscribe("a", first);
    EXPECT_EQ(client->unsubscribeWait("a", &first, conv::SecondsDuration::NO_TIMEOUT),
              Error::SUCCESS);
}

TEST_F(AWaitForAnUnsubscription, HasNothingToWaitForWhileOthersAreSubscribed) {
    server.hold(Type::UNSUBSCRIBE);
    subscribe("a", first);
    subscribe("a", second);
    EXPECT_EQ(client->unsubscribeWait("a", &first, conv::SecondsDuration::NO_TIMEOUT),
              Error::NOT_FOUND);
    sendAll();
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), IsEmpty());
}

TEST_F(AWaitForAnUnsubscription, HasNothingToWaitForWithoutAConnection) {
    subscribe("a", first);
    ASSERT_EQ(client->disconnect(30), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribeWait("a", &first, conv::SecondsDuration::NO_TIMEOUT),
              Error::NO_CONN);
    EXPECT_EQ(client->unsubscribe("a", &first), Error::NOT_FOUND) << "it is registered still";
}

TEST_F(AWaitForAnUnsubscription, InsideACallbackEndsByTimeOut) {
    support::Watched<std::optional<Error>> result;
    support::MessageRecorder waiting([&](auto&&...) {
        auto const error = client->unsubscribeWait("a", &waiting, 1);
        result.change([&](auto& value) { value = error; });
    });
    subscribe("a", waiting);
    send("a", "x");
    ASSERT_TRUE(result.waitFor([](auto const& value) { return value.has_value(); }));
    EXPECT_EQ(result.copy(), Error::TIMEOUT);
    receiveAll();
}

TEST_F(AWaitForAnUnsubscription, InsideACallbackDoesNotLastEvenWithoutLimit) {
    support::Watched<std::optional<Error>> result;
    support::MessageRecorder waiting([&](auto&&...) {
        auto const error =
            client->unsubscribeWait("a", &waiting, conv::SecondsDuration::NO_TIMEOUT);
        result.change([&](auto& value) { value = error; });
    });
    subscribe("a", waiting);
    send("a", "x");
    ASSERT_TRUE(result.waitFor([](auto const& value) { return value.has_value(); }));
    EXPECT_EQ(result.copy(), Error::TIMEOUT);
    EXPECT_TRUE(server.waitForPackets(Type::UNSUBSCRIBE, 1));
    EXPECT_EQ(client->unsubscribe("a", &waiting), Error::NOT_FOUND) << "it is registered still";
    receiveAll();
}

TEST_F(AWaitForAnUnsubscription, CanBeMadeByManyThreadsAtATime) {
    // A wait may miss its acknowledgement to another, but none waits beyond its time.
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

TEST(ABrokerThatStandsStill, LetsAWaitForAnUnsubscriptionEndByTimeOut) {
    support::Broker broker;
    support::MessageRecorder recorder;
    auto const client = support::testClient(broker);
    ASSERT_EQ(client->subscribe("a", &recorder, 0), mqtt::MqttClient::Error::SUCCESS);
    broker.suspend();
    EXPECT_EQ(client->unsubscribeWait("a", &recorder, 1), mqtt::MqttClient::Error::TIMEOUT);
    broker.resume();
}

} // namespace
