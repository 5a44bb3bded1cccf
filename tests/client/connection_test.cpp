// Connecting, as the broker sees it.

#include "mqtt/client.hpp"

#include "mqtt/test/broker.hpp"
#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <sstream>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::Broker;
using mqtt::test::Delivery;
using Error = MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 30;

TEST(TheConstants, AreThirtyAndFiveSeconds) {
    EXPECT_EQ(MqttClient::HEART_BEAT_RATE.toInt32(), 30);
    EXPECT_EQ(MqttClient::COMMUNICATION_DELAY.toInt32(), 5);
}

// Members are destroyed in reverse order: the client before its listener and its broker.
class AClient : public testing::Test {
protected:
    AClient() { client_.registerListener(&states_); }

    mqtt::test::StateRecorder states_;
    Broker broker_;
    MqttClient client_{mqtt::test::uniqueId(),     false, "", broker_.host(), broker_.port(), false,
                       broker_.connectionOptions()};
};

TEST_F(AClient, IsConnectedByACallAndByNoSecondOne) {
    EXPECT_EQ(client_.communicationState(), ComState::DISCONNECTED);
    EXPECT_EQ(client_.disconnect(WAIT_SECONDS), Error::NO_CONN);
    EXPECT_EQ(client_.connect("", -1, conv::SecondsDuration::NO_TIMEOUT), Error::SUCCESS);
    EXPECT_EQ(client_.communicationState(), ComState::CONNECTED);
    EXPECT_EQ(client_.connect("", 1, WAIT_SECONDS), Error::CONNECTION_PENDING);
    EXPECT_EQ(client_.publishWait("a", "x", 1, false, WAIT_SECONDS), Error::SUCCESS);
    broker_.kill();
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    EXPECT_EQ(client_.connect("", -1, WAIT_SECONDS), Error::CONNECTION_PENDING);
    EXPECT_EQ(client_.communicationState(), ComState::CONNECTION_LOST);
}

TEST_F(AClient, RefusesAPortOutOfRangeAndChangesNothing) {
    EXPECT_EQ(client_.connect("", 65536, WAIT_SECONDS), Error::INVALID_PARAMETER);
    EXPECT_EQ(client_.connect("", 65536 + broker_.port(), WAIT_SECONDS), Error::INVALID_PARAMETER);
    EXPECT_THAT(states_.history(), testing::IsEmpty());
    EXPECT_EQ(client_.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    MqttClient madeWithABadPort(mqtt::test::uniqueId(), false, "", "127.0.0.1", -1, false);
    EXPECT_EQ(madeWithABadPort.connect("", -1, WAIT_SECONDS), Error::INVALID_PARAMETER);
    EXPECT_EQ(madeWithABadPort.communicationState(), ComState::DISCONNECTED);
}

TEST_F(AClient, HasNoTrafficWhilePaused) {
    ASSERT_EQ(client_.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    client_.pause();
    // The network step under way may still carry a message.
    ASSERT_TRUE(mqtt::test::eventually(
        [&] { return client_.publishWait("a", "x", 1, false, 1) == Error::TIMEOUT; }));
    EXPECT_EQ(client_.publishWait("a", "y", 1, false, 1), Error::TIMEOUT);
    client_.resume();
    EXPECT_EQ(client_.publishWait("a", "z", 1, false, WAIT_SECONDS), Error::SUCCESS);
}

TEST_F(AClient, MadeToConnectIsConnectedOrGoesOnTrying) {
    MqttClient const connected(mqtt::test::uniqueId(), false, "", broker_.host(), broker_.port(),
                               true, broker_.connectionOptions());
    EXPECT_EQ(connected.communicationState(), ComState::CONNECTED);
    broker_.kill();
    MqttClient const trying(mqtt::test::uniqueId(), false, "", broker_.host(), broker_.port(), true,
                            broker_.connectionOptions());
    EXPECT_EQ(trying.communicationState(), ComState::CONNECTING);
    broker_.start();
    EXPECT_TRUE(mqtt::test::becomesConnected(trying));
}

class AClientWhoseBrokerDies : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(WithASession, AClientWhoseBrokerDies, testing::Bool(),
                         [](auto const& session) {
                             return session.param ? "Persistent" : "Clean";
                         });

TEST_P(AClientWhoseBrokerDies, FindsItAgainAndReceivesFromIt) {
    mqtt::test::PortLease const elsewhere; // not where it was connected last
    Broker broker;
    mqtt::test::MessageRecorder recorder;
    mqtt::test::StateRecorder states;
    MqttClient client(mqtt::test::uniqueId(), GetParam(), "", "127.0.0.1", elsewhere.port(), false,
                      broker.connectionOptions());
    client.registerListener(&states);
    ASSERT_EQ(client.connect(broker.host(), broker.port(), WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(client.subscribe("a/+", &recorder, 8), Error::SUCCESS);
    for (std::string const round : {"1", "2"}) {
        broker.kill();
        ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
        ASSERT_EQ(client.subscribe("b" + round, &recorder, 9), Error::SUCCESS);
        broker.start();
        ASSERT_TRUE(states.waitFor(ComState::CONNECTED));
        ASSERT_EQ(client.publishWait("reached", "", 1, false, WAIT_SECONDS), Error::SUCCESS);
        mqtt::test::RawPeer peer(broker);
        recorder.clear();
        peer.publish("a/b", round);
        peer.publish("b" + round, "new");
        ASSERT_TRUE(recorder.waitForCount(2));
        EXPECT_THAT(recorder.deliveries(), testing::ElementsAre(Delivery{8, "a/b", round},
                                                                Delivery{9, "b" + round, "new"}));
    }
}

TEST(AClientOfAUnixSocket, ConnectsWithPortZero) {
    mqtt::test::BrokerOptions options;
    options.unixSocket = true;
    Broker broker(options);
    MqttClient client(mqtt::test::uniqueId(), false, "", broker.socketPath(), 0, false);
    EXPECT_EQ(client.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_EQ(client.publishWait("a", "x", 2, false, WAIT_SECONDS), Error::SUCCESS);
}

TEST(AClientWithoutABroker, IsToldTheSystemsReasonAndGoesOnTrying) {
    mqtt::test::PortLease const port; // without a listener
    MqttClient client(mqtt::test::uniqueId(), false, "", "127.0.0.1", port.port(), false);
    std::ostringstream text;
    text << client.connect("", -1, WAIT_SECONDS);
    EXPECT_EQ(text.str(), "ERRNO #" + std::to_string(ECONNREFUSED));
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
    EXPECT_EQ(client.connect("", -1, WAIT_SECONDS), Error::CONNECTION_PENDING);
    EXPECT_EQ(client.disconnect(WAIT_SECONDS), Error::NO_CONN);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
}

} // namespace
