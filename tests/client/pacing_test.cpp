#include "client/sockets.hpp"
#include "mqtt/test/broker.hpp"
#include "mqtt/test/eventually.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace {

using mqtt::Topic;
using Error = mqtt::MqttClient::Error;

constexpr int STREAM_LENGTH = 100;

/// Sends a packet.
using Operation = std::function<Error(Topic const& one)>;

/// A client with a broker of its own.
class APacedClient : public testing::Test {
protected:
    bool sendsAtOnce() const {
        auto const sockets = socketsConnectedTo(broker.port());
        EXPECT_EQ(sockets.size(), 1U);
        return isOn(sockets.at(0), TCP_NODELAY);
    }

    bool gathers() const {
        return mqtt::test::eventually([this] { return !sendsAtOnce(); });
    }

    bool sendsAtOnceAfterExchanges() {
        return mqtt::test::eventually([this] {
            // A wait ends by time-out when an older publication of a stream is acknowledged in the
            // same step, so it is short.
            EXPECT_TRUE(mqtt::test::eventually([this] {
                return client->publishWait(topic, "news", 1, false, 2) == Error::SUCCESS;
            }));
            return sendsAtOnce();
        });
    }

    Topic const topic{"paced"};
    mqtt::test::MessageRecorder recorder;
    mqtt::test::Broker broker;
    std::unique_ptr<mqtt::MqttClient> client = mqtt::test::testClient(broker);
};

TEST_F(APacedClient, GathersEveryStreamAndSendsAtOnceAgainAfterIt) {
    EXPECT_TRUE(sendsAtOnce());
    for (auto const& operation :
         {Operation([&](auto&) { return client->publish(topic, "news", 1, false); }),
          Operation([&](auto&) { return client->clear(topic); }),
          Operation([&](auto& one) { return client->subscribe(one, &recorder, 0); }),
          Operation([&](auto& one) { return client->unsubscribe(one, &recorder); })}) {
        for (int i = 0; i < STREAM_LENGTH; ++i) {
            EXPECT_EQ(operation(topic + std::to_string(i)), Error::SUCCESS);
        }
        EXPECT_TRUE(gathers());
        EXPECT_TRUE(sendsAtOnceAfterExchanges());
    }
}

} // namespace
