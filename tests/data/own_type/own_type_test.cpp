#include "reading.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using mqtt::MqttData;
using testing::ElementsAre;
using Error = mqtt::MqttClient::Error;

class Display : public MqttData<Reading>::Subscriber {
public:
    virtual ~Display() = default;

    void onMqttData(Reading const& reading, bool empty, int id) override {
        lines_.change([&](auto& lines) {
            lines.push_back(std::to_string(id) + ": "
                            + (empty ? "gone" : std::to_string(reading.value) + reading.unit));
        });
    }

    std::vector<std::string> lines(std::size_t count) const {
        EXPECT_TRUE(lines_.waitFor([&](auto const& lines) { return lines.size() >= count; }));
        return lines_.copy();
    }

private:
    support::Watched<std::vector<std::string>> lines_;
};

class AnApplicationsOwnType : public testing::Test {
protected:
    support::Broker broker;
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(broker);
    Display display;
    MqttData<Reading> sensor{*client, "house/cellar"};
    MqttData<Reading> panel{*client, "house/cellar"};
};

TEST_F(AnApplicationsOwnType, StandsOnATopicLevelOfItsOwn) {
    EXPECT_STREQ(MqttData<Reading>::TOPIC_SUFFIX, "reading");
    EXPECT_EQ(sensor.topicBase().text(), "house/cellar/reading");
}

TEST_F(AnApplicationsOwnType, IsPublishedInItsOwnFormatAndRetained) {
    sensor.value = {12.5, "C"};
    sensor.publishWait();
    auto const message = support::retained(broker, "house/cellar/reading");
    ASSERT_TRUE(message);
    EXPECT_EQ(message->payload, "{\n  \"value\": 12.5,\n  \"unit\": \"C\"\n}");
}

TEST_F(AnApplicationsOwnType, IsReceivedAsAValue) {
    ASSERT_EQ(panel.subscribe(&display, 7), Error::SUCCESS);
    sensor.value = {12.5, "C"};
    sensor.publishWait();
    EXPECT_EQ(sensor.cleanWait(), Error::SUCCESS);
    EXPECT_THAT(display.lines(2), ElementsAre("7: 12.500000C", "7: gone"));
    EXPECT_EQ(panel.unsubscribe(), Error::SUCCESS);
}

TEST_F(AnApplicationsOwnType, DropsWhatItCannotRead) {
    ASSERT_EQ(panel.subscribe(&display, 7), Error::SUCCESS);
    // The broker knows of the subscription by then: it came before, on the same connection.
    sensor.publishWait();
    support::RawPeer peer(broker);
    for (char const* const payload : {"{", "[]", R"({"value": 1})", R"({"value": "1"})"}) {
        peer.publish("house/cellar/reading", payload);
    }
    sensor.value = {0, "K"};
    sensor.publishWait();
    EXPECT_THAT(display.lines(2), ElementsAre("7: 0.000000", "7: 0.000000K"));
}

TEST_F(AnApplicationsOwnType, CanBeCopied) {
    ASSERT_EQ(panel.subscribe(&display, 7), Error::SUCCESS);
    {
        MqttData<Reading> const copy(panel);
        sensor.value = {1, "C"};
        sensor.publishWait();
        EXPECT_THAT(display.lines(2), ElementsAre("7: 1.000000C", "0: 1.000000C"));
    }
    sensor.publishWait();
    EXPECT_EQ(display.lines(3).back(), "7: 1.000000C");
}

} // namespace
