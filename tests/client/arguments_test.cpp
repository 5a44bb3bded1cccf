// Which publications, subscriptions and wills are refused before the broker library sees them.

#include "client/arguments.hpp"

#include "client/client_on_a_script.hpp"

#include <gmock/gmock.h>

namespace {

using mqtt::Topic;
using testing::IsEmpty;
using Error = mqtt::MqttClient::Error;
using Operation = support::StandIn::Operation;

constexpr auto MALFORMED_UTF8 = static_cast<Error>(18);

struct TopicCase {
    std::string topic;
    Error publication;
    Error subscription;
};

std::vector<TopicCase> const TOPICS{
    {"a/b", Error::SUCCESS, Error::SUCCESS},
    {std::string(65535, 'a'), Error::SUCCESS, Error::SUCCESS},
    {"", Error::INVALID_PARAMETER, Error::INVALID_PARAMETER},
    {"/", Error::INVALID_PARAMETER, Error::INVALID_PARAMETER},
    {"#", Error::INVALID_PARAMETER, Error::SUCCESS},
    {"a/#", Error::INVALID_PARAMETER, Error::SUCCESS},
    {"a/+/b", Error::INVALID_PARAMETER, Error::SUCCESS},
    {"a+b", Error::INVALID_PARAMETER, Error::INVALID_PARAMETER},
    {"a/#/b", Error::INVALID_PARAMETER, Error::INVALID_PARAMETER},
    {std::string(65536, 'a'), Error::INVALID_PARAMETER, Error::INVALID_PARAMETER},
    {std::string(65537, 'a'), MALFORMED_UTF8, Error::INVALID_PARAMETER},
    {"a/\xFF", MALFORMED_UTF8, MALFORMED_UTF8},
    {"a/\xC3(", MALFORMED_UTF8, MALFORMED_UTF8},
    {"\xFF/#", MALFORMED_UTF8, MALFORMED_UTF8},
    {"a/\xED\xA0\x80", MALFORMED_UTF8, MALFORMED_UTF8}, // a surrogate
    {"a/\x01", MALFORMED_UTF8, MALFORMED_UTF8},
    {std::string("a\0b", 3), MALFORMED_UTF8, MALFORMED_UTF8},
    {std::string("a\0", 2), MALFORMED_UTF8, MALFORMED_UTF8},
    {std::string("\0a", 2), MALFORMED_UTF8, MALFORMED_UTF8},
};

TEST(ATopicCheck, GivesTheReasonForTheRefusal) {
    for (auto const& [topic, publication, subscription] : TOPICS) {
        SCOPED_TRACE(topic.substr(0, 10) + ", " + std::to_string(topic.size()) + " bytes");
        EXPECT_EQ(mqtt::checkPublication(topic, 1, 2), publication);
        EXPECT_EQ(mqtt::checkSubscription(topic), subscription);
    }
    for (int const qos : {3, 256, -1}) {
        EXPECT_EQ(mqtt::checkPublication("a", 1, qos), Error::INVALID_PARAMETER) << qos;
    }
}

// The broker library takes sizes as an `int`: from 4 GiB on they would look small.
TEST(APayload, IsTooLargeForAPublicationFromOneByteMoreThanMqttCanCarry) {
    Topic const topic = "a/b";
    for (int const qos : {0, 1, 2}) {
        auto const longest = mqtt::MAX_PACKET - 3 - (qos == 0 ? 2 : 4);
        EXPECT_EQ(mqtt::checkPublication(topic, longest, qos), Error::SUCCESS);
        EXPECT_EQ(mqtt::checkPublication(topic, longest + 1, qos), Error::PAYLOAD_SIZE);
    }
}

class ARefusedArgument : public AClientOnAScript {
protected:
    void expectRefusal(Topic const& topic, std::string const& payload, int qos, Error expected) {
        EXPECT_EQ(client_->publish(topic, payload, qos, true), expected);
        EXPECT_EQ(client_->publishWait(topic, payload, qos, true, WAIT_SECONDS), expected);
    }
};

TEST_F(ARefusedArgument, IsNeitherSentNorQueuedNorMadeTheWill) {
    std::string const tooLarge(mqtt::MAX_PACKET - 2, 'x');
    // Without a connection; connected, the library itself refuses topics and QoS.
    for (auto const& [topic, expected, unused] : TOPICS) {
        if (expected != Error::SUCCESS) {
            expectRefusal(topic, "x", 2, expected);
            EXPECT_EQ(client_->clear(topic), expected);
            EXPECT_EQ(client_->setWill(topic, "x", 2, false), expected);
        }
    }
    expectRefusal("a", "x", 3, Error::INVALID_PARAMETER);
    expectRefusal("a", tooLarge, 0, Error::PAYLOAD_SIZE);
    EXPECT_EQ(client_->setWill("a", "x", 3, false), Error::INVALID_PARAMETER);
    EXPECT_EQ(client_->setWill("a", "x", -1, false), Error::INVALID_PARAMETER);
    EXPECT_EQ(client_->setWill("a", std::string(mqtt::MAX_WILL_PAYLOAD + 1, 'x'), 2, true),
              Error::PAYLOAD_SIZE);
    connect();
    expectRefusal("a", tooLarge, 0, Error::PAYLOAD_SIZE);
    expectRefusal(std::string("a\0b", 3), "x", 1, MALFORMED_UTF8);
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(script_->count(Operation::WILL_SET), 0U);
    EXPECT_EQ(connections(), 1);
}

TEST_F(ARefusedArgument, OfASubscriptionRegistersNothing) {
    for (bool const connected : {false, true}) {
        SCOPED_TRACE(connected);
        for (auto const& [topic, unused, expected] : TOPICS) {
            if (expected != Error::SUCCESS) {
                EXPECT_EQ(client_->subscribe(topic, &subscriber_, 0), expected);
                EXPECT_EQ(client_->unsubscribe(topic, &subscriber_), Error::NOT_FOUND);
            }
        }
        if (!connected) {
            connect();
        }
    }
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
}

} // namespace
