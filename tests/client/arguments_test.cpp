#include "client/arguments.hpp"

#include <gtest/gtest.h>

namespace {

using Error = mqtt::MqttClient::Error;

// Sizes from 4 GiB on would look small to the broker library, which takes them as an `int`.
TEST(APayload, IsTooLargeForAPublicationFromOneByteMoreThanMqttCanCarry) {
    for (int const qos : {0, 1, 2}) {
        EXPECT_EQ(mqtt::checkPublication("a", mqtt::MAX_PAYLOAD, qos), Error::SUCCESS);
        EXPECT_EQ(mqtt::checkPublication("a", mqtt::MAX_PAYLOAD + 1, qos), Error::PAYLOAD_SIZE);
    }
    EXPECT_EQ(mqtt::checkSizes("a", mqtt::MAX_PAYLOAD), Error::SUCCESS);
    EXPECT_EQ(mqtt::checkSizes("a", mqtt::MAX_PAYLOAD + 1), Error::PAYLOAD_SIZE);
}

} // namespace
