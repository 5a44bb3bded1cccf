#include "mqtt/test/broker.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <gtest/gtest.h>

TEST(AFirstMessage, ReachesItsSubscriber) {
    mqtt::test::Broker broker;
    mqtt::test::MessageRecorder recorder;
    auto client = mqtt::test::testClient(broker);
    ASSERT_EQ(client->subscribe("greeting", &recorder, 1), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(client->publish("greeting", "hello", 2, false), mqtt::MqttClient::Error::SUCCESS);
    EXPECT_TRUE(recorder.waitForPayload("hello"));
}
