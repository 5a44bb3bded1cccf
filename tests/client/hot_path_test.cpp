// How many allocations a message takes on its way in and on its way out.

#include "client/receiving_client.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>

#include <string>

namespace {

using mqtt::MqttClient;
using mqtt::Topic;
using Error = MqttClient::Error;

// Shorter and longer than what a string keeps inside itself.
std::string const SHORT_TEXT = "21.5";
std::string const LONG_TEXT(1000, 'x');
std::string const SHORT_TOPIC = "room/2";
std::string const LONG_TOPIC = "plant/hall-seventeen/device-0815/temperature/celsius";

struct CountingSubscriber : MqttClient::Subscriber {
    void onMqttMessage(int /*tag*/, Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        ++messages;
    }
    unsigned messages = 0;
};

class AMessage : public AReceivingClient {
protected:
    ~AMessage() override { client_->release(&counter_); }

    void subscribe(std::string const& topic) {
        ASSERT_EQ(client_->subscribe(topic, &counter_, 0), Error::SUCCESS);
    }

    template <class Action>
    static std::size_t allocationsOf(Action const& action) {
        EXPECT_EQ(action(), Error::SUCCESS);
        support::AllocationCount const count;
        EXPECT_EQ(action(), Error::SUCCESS);
        return count.value();
    }

    CountingSubscriber counter_;
};

TEST_F(AMessage, ArrivesWithOneCopyOfALongPayloadAndOnlyIfSomebodyGetsIt) {
    subscribe(SHORT_TOPIC);
    for (int i = 0; i < 20; ++i) {
        subscribe(LONG_TOPIC); // the number of subscribers does not count
    }
    for (int i = 0; i < 1000; ++i) {
        subscribe("plant/+/device-" + std::to_string(i) + "/#"); // nor that of patterns
    }
    for (auto const& topic :
         {SHORT_TOPIC, LONG_TOPIC, std::string("plant/hall/device-815/speed")}) {
        EXPECT_EQ(allocationsToReceive(topic, SHORT_TEXT), 0U);
        EXPECT_EQ(allocationsToReceive(topic, ""), 0U);
        EXPECT_EQ(allocationsToReceive(topic, LONG_TEXT), 1U);
    }
    EXPECT_EQ(allocationsToReceive("nobody/" + LONG_TOPIC, SHORT_TEXT), 0U);
    EXPECT_EQ(allocationsToReceive("nobody/" + LONG_TOPIC, LONG_TEXT), 0U);
    EXPECT_EQ(counter_.messages, 6 + 6 * 20 + 6U);
}

TEST_F(AMessage, LeavesWithoutAnAllocation) {
    Topic const topic(LONG_TOPIC);
    for (int const qos : {0, 1, 2}) {
        for (auto const& payload : {SHORT_TEXT, LONG_TEXT}) {
            EXPECT_EQ(allocationsOf([&] { return client_->publish(topic, payload, qos, true); }),
                      0U);
            EXPECT_EQ(
                allocationsOf([&] { return client_->publishWait(topic, payload, qos, false, 30); }),
                0U);
        }
    }
    EXPECT_EQ(allocationsOf([&] { return client_->clear(topic); }), 0U);
    EXPECT_EQ(script_->count(support::StandIn::Operation::PUBLISH), 26U);
}

} // namespace
