#include "support/recorder.hpp"

#include "support/stand_in/stand_in.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using conv::ComState;
using support::Delivery;
using support::StandIn;
using testing::ElementsAre;

TEST(AMessageRecorder, RecordsMessagesInOrderAndCallsItsHook) {
    std::vector<std::size_t> counts;
    support::MessageRecorder recorder([&](auto&&...) { counts.push_back(recorder.count()); });
    auto const client = support::testClient("host", 1234);
    ASSERT_EQ(client->subscribe("a", &recorder, 1), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(client->subscribe("b", &recorder, 2), mqtt::MqttClient::Error::SUCCESS);
    StandIn::last()->deliver("b", "first");
    StandIn::last()->deliver("a", "second");
    ASSERT_TRUE(recorder.waitForPayload("second"));
    EXPECT_THAT(recorder.deliveries(),
                ElementsAre(Delivery{2, "b", "first"}, Delivery{1, "a", "second"}));
    StandIn::last()->runInLoop([](auto&) {}); // after the hook
    EXPECT_THAT(counts, ElementsAre(1, 2));
    EXPECT_FALSE(recorder.waitForPayload("third", 10ms));
    EXPECT_FALSE(recorder.waitForCount(3, 10ms));
}

TEST(AStateRecorder, RecordsEveryChange) {
    support::StateRecorder recorder;
    support::ClientOptions options;
    options.connect = false;
    auto const client = support::testClient("host", 1234, options);
    client->registerListener(&recorder);
    ASSERT_EQ(client->connect("", -1, 20), mqtt::MqttClient::Error::SUCCESS);
    EXPECT_TRUE(recorder.waitFor(ComState::CONNECTED));
    EXPECT_TRUE(recorder.waitForHistory({ComState::CONNECTING, ComState::CONNECTED}));
    EXPECT_FALSE(recorder.waitFor(ComState::DISCONNECTED, 10ms));
    EXPECT_FALSE(recorder.waitForHistory({}, 10ms));
}

} // namespace
