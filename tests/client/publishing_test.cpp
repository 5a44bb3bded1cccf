#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <mqtt/client.hpp>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using conv::ComState;
using Error = mqtt::MqttClient::Error;
using Payloads = std::vector<std::string>;

class APublicationInFlightWhenTheBrokerDies
    : public testing::TestWithParam<std::tuple<int, int, bool>> {};

// 60 are more than the library sends without an acknowledgement.
INSTANTIATE_TEST_SUITE_P(CountQosAndSession, APublicationInFlightWhenTheBrokerDies,
                         testing::Combine(testing::Values(3, 60), testing::Values(1, 2),
                                          testing::Bool()));

TEST_P(APublicationInFlightWhenTheBrokerDies, ArrivesBeforeWhatWasQueuedEachOnce) {
    auto const [count, qos, isPersistent] = GetParam();
    mqtt::test::StateRecorder states;
    mqtt::test::Broker broker;
    mqtt::test::ClientOptions options;
    options.persistent = isPersistent;
    auto const client = mqtt::test::testClient(broker, options);
    client->registerListener(&states);
    Payloads published;
    auto const publishMore = [&, qos = qos](int more) {
        for (int i = 0; i < more; ++i) {
            published.push_back(std::to_string(published.size()));
            EXPECT_EQ(client->publish("a", published.back(), qos, true), Error::SUCCESS);
        }
    };
    // Still in flight when the broker dies, because it stands still before.
    broker.suspend();
    publishMore(count);
    broker.kill();
    ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    publishMore(count);
    client->pause(); // until the peer has subscribed
    broker.start();
    mqtt::test::RawPeer peer(broker);
    peer.subscribe("#");
    client->resume();
    ASSERT_TRUE(peer.waitForMessages(published.size()));
    publishMore(1);
    ASSERT_TRUE(peer.waitForMessages(published.size()));
    EXPECT_EQ(peer.payloads(), published);
    EXPECT_EQ(mqtt::test::retained(broker, "a")->payload, published.back());
}

} // namespace
