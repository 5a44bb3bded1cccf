#include "mqtt/client.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::Broker;
using support::BrokerOptions;
using support::MessageRecorder;
using support::PortLease;
using support::StateRecorder;
using testing::HasSubstr;
using zym::common::Uuid;
using Error = MqttClient::Error;

constexpr unsigned PATIENCE = 30; // seconds

// As the broker writes it into its log: clean session, keep-alive.
std::string connectedAs(Uuid const& id, char const* clean) {
    return "as " + MqttClient::clientId(id) + " (p2, " + clean + ", k30)";
}

TEST(TheConstants, AreThirtyAndFiveSeconds) {
    EXPECT_EQ(MqttClient::HEART_BEAT_RATE.toInt32(), 30);
    EXPECT_EQ(MqttClient::COMMUNICATION_DELAY.toInt32(), 5);
}

class ANewClient : public testing::Test {
protected:
    Broker broker;
    Uuid const id = support::uniqueId();
    MqttClient client{id, false, "", broker.host(), broker.port(), false};
};

TEST_F(ANewClient, IsDisconnected) {
    EXPECT_EQ(client.communicationState(), ComState::DISCONNECTED);
    EXPECT_THAT(broker.log(), testing::Not(HasSubstr(MqttClient::clientId(id))));
}

TEST_F(ANewClient, HasNoConnectionToEnd) {
    EXPECT_EQ(client.disconnect(PATIENCE), Error::NO_CONN);
    EXPECT_EQ(client.communicationState(), ComState::DISCONNECTED);
}

TEST_F(ANewClient, ConnectsToTheHostAndPortOfItsConstruction) {
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTED);
    EXPECT_THAT(broker.log(), HasSubstr(connectedAs(id, "c1")));
}

TEST_F(ANewClient, ConnectsToWhereItIsToldAndRemembersThat) {
    Broker other;
    EXPECT_EQ(client.connect(other.host(), other.port(), PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client.disconnect(PATIENCE), Error::SUCCESS);
    broker.stop();
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS);
}

TEST_F(ANewClient, RefusesAPortOutOfRangeAndChangesNothing) {
    StateRecorder states;
    client.registerListener(&states);
    EXPECT_EQ(client.connect("", 65536, PATIENCE), Error::INVALID_PARAMETER);
    EXPECT_EQ(client.connect("", 65536 + broker.port(), PATIENCE), Error::INVALID_PARAMETER);
    EXPECT_EQ(client.communicationState(), ComState::DISCONNECTED);
    EXPECT_THAT(states.history(), testing::IsEmpty());
    client.unregisterListener(&states);
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS);
}

TEST_F(ANewClient, WaitsNotAtAllForATimeoutOfZeroButConnectsAnyway) {
    broker.suspend(); // its kernel takes the connection, nobody answers
    EXPECT_EQ(client.connect("", -1, 0), Error::TIMEOUT);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
    broker.resume();
    EXPECT_TRUE(support::becomesConnected(client));
}

TEST_F(ANewClient, StaysConnectingWhenTheWaitForTheBrokerRunsOut) {
    broker.suspend();
    EXPECT_EQ(client.connect("", -1, 1), Error::TIMEOUT);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
    broker.resume();
}

TEST_F(ANewClient, WaitsWithoutLimitForATimeoutOfAllOnes) {
    EXPECT_EQ(client.connect("", -1, conv::SecondsDuration::NO_TIMEOUT), Error::SUCCESS);
}

TEST(AClient, ThatConnectsAtOnceIsConnectedWhenItIsMade) {
    Broker broker;
    MqttClient const client(support::uniqueId(), false, "", broker.host(), broker.port(), true);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTED);
}

TEST(AClient, ThatConnectsAtOnceGoesOnTryingWithoutABroker) {
    Broker broker;
    broker.kill();
    MqttClient const client(support::uniqueId(), false, "", broker.host(), broker.port(), true);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
    broker.start();
    EXPECT_TRUE(support::becomesConnected(client));
}

TEST(AClient, ThatIsPersistentAsksTheBrokerToKeepItsSession) {
    Broker broker;
    auto const id = support::uniqueId();
    MqttClient const client(id, true, "", broker.host(), broker.port(), true);
    EXPECT_THAT(broker.log(), HasSubstr(connectedAs(id, "c0")));
}

TEST(AClient, IsKnownToTheBrokerByTheBase64UrlTextOfItsIdentifier) {
    Uuid const id(0x0102030405060708ULL);
    EXPECT_EQ(MqttClient::clientId(id), id.base64URL());
    EXPECT_EQ(MqttClient::clientId(id).size(), 22U);
}

TEST(AClient, ConnectsOverAUnixSocketWithPortZero) {
    BrokerOptions options;
    options.unixSocket = true;
    Broker broker(options);
    MqttClient client(support::uniqueId(), false, "", broker.socketPath(), 0, false);
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client.publishWait("a", "x", 2, false, PATIENCE), Error::SUCCESS);
}

TEST(AClient, WithAPortOutOfRangeSaysSoAndChangesNothing) {
    MqttClient client(support::uniqueId(), false, "", "127.0.0.1", -1, false);
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::INVALID_PARAMETER);
    EXPECT_EQ(client.communicationState(), ComState::DISCONNECTED);
}

class AConnectedClient : public ANewClient {
protected:
    void SetUp() override { ASSERT_EQ(client.connect("", -1, PATIENCE), Error::SUCCESS); }
};

TEST_F(AConnectedClient, CannotBeConnectedAgain) {
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::CONNECTION_PENDING);
    EXPECT_EQ(client.connect("", 1, PATIENCE), Error::CONNECTION_PENDING);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTED);
    EXPECT_EQ(client.publishWait("a", "x", 1, false, PATIENCE), Error::SUCCESS);
}

TEST_F(AConnectedClient, CannotBeConnectedWhileItsConnectionIsLost) {
    StateRecorder states;
    client.registerListener(&states);
    broker.kill();
    ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::CONNECTION_PENDING);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTION_LOST);
    client.unregisterListener(&states);
}

TEST_F(AConnectedClient, HasNoTrafficWhilePaused) {
    client.pause();
    // The network step under way may still carry one.
    ASSERT_TRUE(support::eventually(
        [&] { return client.publishWait("a", "x", 1, false, 1) == Error::TIMEOUT; }));
    EXPECT_EQ(client.publishWait("a", "y", 1, false, 1), Error::TIMEOUT);
    client.resume();
    EXPECT_EQ(client.publishWait("a", "z", 1, false, PATIENCE), Error::SUCCESS);
}

class AClientWithoutABroker : public testing::Test {
protected:
    PortLease port; // nobody listens there
    MqttClient client{support::uniqueId(), false, "", "127.0.0.1", port.port(), false};
};

TEST_F(AClientWithoutABroker, IsToldTheSystemsReasonAndGoesOnTrying) {
    std::ostringstream text;
    text << client.connect("", -1, PATIENCE);
    EXPECT_EQ(text.str(), "ERRNO #" + std::to_string(ECONNREFUSED));
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
}

TEST_F(AClientWithoutABroker, CannotBeConnectedAgainWhileItTries) {
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::ERRNO);
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::CONNECTION_PENDING);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
}

TEST_F(AClientWithoutABroker, HasNoConnectionToEndAndGoesOnTrying) {
    EXPECT_EQ(client.connect("", -1, PATIENCE), Error::ERRNO);
    EXPECT_EQ(client.disconnect(PATIENCE), Error::NO_CONN);
    EXPECT_EQ(client.communicationState(), ComState::CONNECTING);
}

} // namespace
