// An application's own type over a broker. The shared library and its public headers are all that
// this program uses of us, besides what the tests stand on.

#include "consumer/fill_level.hpp"

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using mqtt::MqttData;
using testing::ElementsAre;
using Error = mqtt::MqttClient::Error;

class Display : public mqtt::test::CallRecorder<std::string>,
                public MqttData<FillLevel>::Subscriber {
public:
    void onMqttData(FillLevel const& level, bool empty, int id) override {
        record(std::to_string(id) + ": " + (empty ? "gone" : std::to_string(level.litres)));
    }

    std::vector<std::string> lines(std::size_t count) const {
        EXPECT_TRUE(waitForCount(count));
        return calls();
    }
};

class AnApplicationsOwnType : public testing::Test {
protected:
    mqtt::test::Broker broker;
    std::unique_ptr<mqtt::MqttClient> client = mqtt::test::testClient(broker);
    Display display;
    MqttData<FillLevel> tank{*client, "plant/tank"};
    MqttData<FillLevel> panel{*client, "plant/tank"};
};

TEST_F(AnApplicationsOwnType, IsPublishedInItsFormatAndReceivedAlsoByACopyOfTheEndpoint) {
    ASSERT_EQ(panel.subscribe(&display, 7), Error::SUCCESS);
    // The broker has the subscription by then: it was sent before, on the same connection.
    tank.publishWait();
    mqtt::test::RawPeer peer(broker);
    for (char const* const payload : {"{", "[]", R"({"level": 1})", R"({"litres": "1"})"}) {
        peer.publish("plant/tank/level", payload); // cannot be read
    }
    tank.value.litres = 12;
    tank.publishWait();
    EXPECT_THAT(display.lines(2), ElementsAre("7: 0", "7: 12"));
    {
        MqttData<FillLevel> const copy(panel);
        EXPECT_THAT(display.lines(4), ElementsAre("7: 0", "7: 12", "7: 12", "0: 12"))
            << "the retained value again";
    }
    auto const message = mqtt::test::retained(broker, "plant/tank/level");
    ASSERT_TRUE(message);
    EXPECT_EQ(message->payload, "{\n  \"litres\": 12\n}");
    EXPECT_EQ(tank.cleanWait(), Error::SUCCESS);
    EXPECT_EQ(display.lines(5).back(), "7: gone");
    EXPECT_EQ(panel.unsubscribe(), Error::SUCCESS);
}

} // namespace
