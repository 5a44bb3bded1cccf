// What a typed value costs in allocations, on its way in and on its way out.

#include "client/client_on_a_script.hpp"
#include "support/allocations.hpp"

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

class AValue : public AClientOnAScript {
protected:
    AValue() { connect(); }

    /// From the broker library's call until it returns, when all has been met before.
    template <class T>
    std::size_t allocationsToReceive(T const& value) {
        mqtt::MqttData<T> endpoint(*client_, Topic("plant/hall/device"));
        Taker<T> taker;
        EXPECT_EQ(endpoint.subscribe(&taker, 0), mqtt::MqttClient::Error::SUCCESS);
        std::string topic = endpoint.topicBase().text();
        std::string payload;
        mqtt::MqttData<T>::serialize(endpoint.topicBase(), payload, value);
        std::size_t result = 0;
        script_->runInLoop([&](auto& object) {
            mosquitto_message message{};
            message.topic = topic.data();
            message.payload = payload.data();
            message.payloadlen = static_cast<int>(payload.size());
            object.on_message(&message);
            support::AllocationCount const count;
            object.on_message(&message);
            result = count.value();
        });
        EXPECT_EQ(taker.values, 2U);
        return result;
    }
};

TEST_F(AValue, ArrivesWithOneAllocationForItsPayloadAndOneForItsDocument) {
    conv::CommunicationStatus const status{conv::ComState::CONNECTED, conv::UnixTime(1.5)};
    EXPECT_LE(allocationsToReceive(status), 2U);
    EXPECT_LE(allocationsToReceive(conv::ServiceStatus{1, 3}), 2U);
    EXPECT_LE(allocationsToReceive(mqtt::Link{"a/b"}), 2U);
    EXPECT_LE(allocationsToReceive(conv::Identification()), 2U);
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
