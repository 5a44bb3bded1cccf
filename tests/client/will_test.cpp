#include "mqtt/client.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::Broker;
using support::Message;
using support::RawPeer;
using support::StateRecorder;
using testing::ElementsAre;
using Error = MqttClient::Error;

constexpr unsigned PATIENCE = 30; // seconds
constexpr auto MALFORMED_UTF8 = static_cast<Error>(18);

class AWill : public testing::Test {
protected:
    void SetUp() override { watcher.subscribe("will"); }

    // What was published up to now: nothing of it can come after the end marker.
    auto published() {
        watcher.publish("will", "end", 2, false);
        EXPECT_TRUE(watcher.waitFor([](auto const& messages) {
            return !messages.empty() && messages.back().payload == "end";
        }));
        return watcher.payloads();
    }

    std::unique_ptr<MqttClient> newClient() {
        return std::make_unique<MqttClient>(support::uniqueId(), false, "", broker.host(),
                                            broker.port(), false);
    }

    Broker broker;
    RawPeer watcher{broker};
    std::unique_ptr<MqttClient> client = newClient();
};

TEST_F(AWill, IsPublishedWhenTheClientVanishes) {
    std::string const payload("with \0 byte", 11);
    ASSERT_EQ(client->setWill("will", payload, 2, true), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    client.reset();
    ASSERT_TRUE(watcher.waitForMessages(1));
    EXPECT_THAT(watcher.messages(), ElementsAre(Message{"will", payload, 2, false}));
    EXPECT_EQ(support::retained(broker, "will"), (Message{"will", payload, 2, true}));
}

TEST_F(AWill, IsRefusedWhenItsPayloadIsTooLarge) {
    EXPECT_EQ(client->setWill("will", std::string(65'536, 'x'), 2, true), Error::PAYLOAD_SIZE);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    client.reset();
    EXPECT_THAT(published(), ElementsAre("end"));
}

TEST_F(AWill, IsNotPublishedAfterADisconnect) {
    ASSERT_EQ(client->setWill("will", "gone", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    ASSERT_EQ(client->disconnect(PATIENCE), Error::SUCCESS);
    client.reset();
    EXPECT_THAT(published(), ElementsAre("end"));
}

TEST_F(AWill, IsNotPublishedOnceCleared) {
    ASSERT_EQ(client->setWill("will", "gone", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->clearWill(), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    client.reset();
    EXPECT_THAT(published(), ElementsAre("end"));
}

TEST_F(AWill, CanBeReplacedWhileTheClientIsDisconnected) {
    ASSERT_EQ(client->setWill("will", "first", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->setWill("will", "second", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    client.reset();
    ASSERT_TRUE(watcher.waitForMessages(1));
    EXPECT_THAT(watcher.payloads(), ElementsAre("second"));
}

TEST_F(AWill, CannotBeChangedInAnyOtherState) {
    auto const refuses = [&] {
        return client->setWill("will", "other", 2, false) == Error::CONNECTION_PENDING
               && client->clearWill() == Error::CONNECTION_PENDING;
    };
    ASSERT_EQ(client->setWill("will", "first", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    EXPECT_TRUE(refuses()) << "connected";
    StateRecorder states;
    client->registerListener(&states);
    broker.kill();
    ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    client->unregisterListener(&states);
    EXPECT_TRUE(refuses()) << "connection lost";

    client = newClient();
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::ERRNO);
    EXPECT_TRUE(refuses()) << "connecting";
}

TEST_F(AWill, ThatTheBrokerWouldNotBearIsRefused) {
    EXPECT_EQ(client->setWill("", "x", 2, false), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->setWill("/", "x", 2, false), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->setWill("will", "x", 3, false), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->setWill("will", "x", -1, false), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->setWill("will/#", "x", 2, false), Error::INVALID_PARAMETER);
    EXPECT_EQ(client->setWill("will/\xFF", "x", 2, false), MALFORMED_UTF8);
    EXPECT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS) << "nothing was set";
}

TEST_F(AWill, SurvivesTheRefusalOfAnother) {
    ASSERT_EQ(client->setWill("will", "first", 2, false), Error::SUCCESS);
    ASSERT_EQ(client->setWill("", "x", 2, false), Error::INVALID_PARAMETER);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    client.reset();
    ASSERT_TRUE(watcher.waitForMessages(1));
    EXPECT_THAT(watcher.payloads(), ElementsAre("first"));
}

} // namespace
