#include "support/broker.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <gtest/gtest.h>

TEST(AFirstMessage, ReachesItsSubscriber) {
    support::Broker broker;
    support::MessageRecorder recorder;
    auto client = support::testClient(broker);
    ASSERT_EQ(client->subscribe("greeting", &recorder, 1), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(client->publish("greeting", "hello", 2, false), mqtt::MqttClient::Error::SUCCESS);
    EXPECT_TRUE(recorder.waitForPayload("hello"));
}
