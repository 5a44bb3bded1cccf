#include "client/arguments.hpp"

#include <gtest/gtest.h>

namespace {

using Error = mqtt::MqttClient::Error;

// Sizes from 4 GiB on would look small to the broker library, which takes them as an `int`.
TEST(APayload, IsTooLargeForAPublicationFromOneByteMoreThanMqttCanCarry) {
    mqtt::Topic const topic = "a/b";
    for (int const qos : {0, 1, 2}) {
        auto const most = mqtt::MAX_PACKET - 3 - (qos == 0 ? 2 : 4);
        EXPECT_EQ(mqtt::checkPublication(topic, most, qos), Error::SUCCESS);
        EXPECT_EQ(mqtt::checkPublication(topic, most + 1, qos), Error::PAYLOAD_SIZE);
        EXPECT_EQ(mqtt::checkSizes(topic, most, qos), Error::SUCCESS);
        EXPECT_EQ(mqtt::checkSizes(topic, most + 1, qos), Error::PAYLOAD_SIZE);
    }
}

} // namespace
