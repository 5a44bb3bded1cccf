// How many allocations a typed value takes on its way in and on its way out.

#include "client/receiving_client.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using mqtt::Topic;

template <class T>
struct CountingSubscriber final : mqtt::MqttData<T>::Subscriber {
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override { ++values; }
    unsigned values = 0;
};

class AValue : public AReceivingClient {
protected:
    template <class T>
    std::size_t allocationsToReceiveValue(T const& value) {
        mqtt::MqttData<T> endpoint(*client_, Topic("plant/hall/device"));
        CountingSubscriber<T> subscriber;
        EXPECT_EQ(endpoint.subscribe(&subscriber, 0), mqtt::MqttClient::Error::SUCCESS);
        std::string payload;
        mqtt::MqttData<T>::serialize(endpoint.topicBase(), payload, value);
        auto const result = allocationsToReceive(endpoint.topicBase().text(), payload);
        EXPECT_EQ(subscriber.values, 2U);
        return result;
    }
};

std::string const LONG_TEXT(100, 'x');

TEST_F(AValue, ArrivesWithOneAllocationForItsPayloadAndOneForEachLongTextOfTheCopy) {
    conv::CommunicationStatus const status{conv::ComState::CONNECTED, conv::UnixTime(1.5)};
    EXPECT_LE(allocationsToReceiveValue(status), 1U);
    EXPECT_LE(allocationsToReceiveValue(conv::ServiceStatus{1, 3}), 1U);
    EXPECT_LE(allocationsToReceiveValue(mqtt::Link{"a/b"}), 1U);
    EXPECT_LE(allocationsToReceiveValue(mqtt::Link{LONG_TEXT}), 1U + 1U);
    conv::Identification identification;
    EXPECT_LE(allocationsToReceiveValue(identification), 1U);
    identification.name = LONG_TEXT;
    identification.location = LONG_TEXT;
    EXPECT_LE(allocationsToReceiveValue(identification), 1U + 2U);
    // A collection: the payload, the text of all elements and that of one; the copy's array, texts.
    EXPECT_LE(allocationsToReceiveValue(std::vector<mqtt::Link>(10, {LONG_TEXT})), 3U + 1U + 10U);
}

TEST_F(AValue, OfManyLinksIsWrittenWithOneForEachAndThoseOfAPayloadThatGrows) {
    std::vector<mqtt::Link> const links(1000, {LONG_TEXT});
    std::string payload;
    support::AllocationCount const count;
    mqtt::MqttDataCollection<mqtt::Link>::serialize("a", payload, links);
    EXPECT_LE(count.value(), 1000U + 12U);
}

TEST_F(AValue, LeavesWithThoseOfItsTopicAndItsPayload) {
    mqtt::MqttData<conv::ServiceStatus> endpoint(*client_, Topic("plant/hall/device"));
    endpoint.publish();
    support::AllocationCount const count;
    endpoint.publish();
    EXPECT_LE(count.value(), 3U); // text and levels of the topic; the payload
}

} // namespace
