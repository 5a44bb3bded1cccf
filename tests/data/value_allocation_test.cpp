// What a typed value costs in allocations, on its way in and on its way out.

#include "client/receiving_client.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <gtest/gtest.h>

#include <string>

namespace {

using mqtt::Topic;

template <class T>
struct Taker final : mqtt::MqttData<T>::Subscriber {
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override { ++values; }
    unsigned values = 0;
};

class AValue : public AReceivingClient {
protected:
    template <class T>
    std::size_t allocationsToReceiveValue(T const& value) {
        mqtt::MqttData<T> endpoint(*client_, Topic("plant/hall/device"));
        Taker<T> taker;
        EXPECT_EQ(endpoint.subscribe(&taker, 0), mqtt::MqttClient::Error::SUCCESS);
        std::string payload;
        mqtt::MqttData<T>::serialize(endpoint.topicBase(), payload, value);
        auto const result = allocationsToReceive(endpoint.topicBase().text(), payload);
        EXPECT_EQ(taker.values, 2U);
        return result;
    }
};

TEST_F(AValue, ArrivesWithOneAllocationForItsPayloadAndOneForItsDocument) {
    conv::CommunicationStatus const status{conv::ComState::CONNECTED, conv::UnixTime(1.5)};
    EXPECT_LE(allocationsToReceiveValue(status), 2U);
    EXPECT_LE(allocationsToReceiveValue(conv::ServiceStatus{1, 3}), 2U);
    EXPECT_LE(allocationsToReceiveValue(mqtt::Link{"a/b"}), 2U);
    EXPECT_LE(allocationsToReceiveValue(conv::Identification()), 2U);
}

TEST_F(AValue, LeavesWithThoseOfItsTopicAndItsPayload) {
    mqtt::MqttData<conv::ServiceStatus> endpoint(*client_, Topic("plant/hall/device"));
    endpoint.publish();
    support::AllocationCount const count;
    endpoint.publish();
    // Text and levels of the topic; a payload that grows twice.
    EXPECT_LE(count.value(), 4U);
}

} // namespace
