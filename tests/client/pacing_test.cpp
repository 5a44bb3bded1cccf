#include "client/sockets.hpp"
#include "mqtt/test/broker.hpp"
#include "mqtt/test/eventually.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using mqtt::Topic;
using Error = mqtt::MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 30;
constexpr int STREAM_LENGTH = 100;

/// One call of an operation that sends a packet.
using Step = std::function<Error(int number)>;

/// A client, not yet connected, with a broker of its own.
class APacedClient : public testing::Test {
protected:
    void connect() { ASSERT_EQ(client.connect("", -1, WAIT_SECONDS), Error::SUCCESS); }

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
            publishWait();
            return sendsAtOnce();
        });
    }

    /// A wait ends by time-out when an older publication of a stream is acknowledged in the same
    /// step, so it is short.
    void publishWait() {
        EXPECT_TRUE(mqtt::test::eventually(
            [this] { return client.publishWait(topic, "news", 1, false, 2) == Error::SUCCESS; }));
    }

    void stream(Step const& step) {
        for (int i = 0; i < STREAM_LENGTH; ++i) {
            EXPECT_EQ(step(i), Error::SUCCESS);
        }
    }

    Step const publish = [this](int) { return client.publish(topic, "news", 1, false); };
    Step const clear = [this](int) { return client.clear(topic); };
    Step const subscribe = [this](int i) {
        return client.subscribe(topic + std::to_string(i), &recorder, 0);
    };
    Step const unsubscribe = [this](int i) {
        return client.unsubscribe(topic + std::to_string(i), &recorder);
    };

    Topic const topic{"paced"};
    mqtt::test::MessageRecorder recorder;
    mqtt::test::Broker broker;
    mqtt::MqttClient client{
        mqtt::test::uniqueId(),    false, "", broker.host(), broker.port(), false,
        broker.connectionOptions()};
};

TEST_F(APacedClient, SendsAtOnceInAnExchange) {
    connect();
    ASSERT_EQ(client.subscribe(topic, &recorder, 0), Error::SUCCESS);
    for (std::size_t i = 1; i <= STREAM_LENGTH; ++i) {
        EXPECT_EQ(publish(0), Error::SUCCESS);
        ASSERT_TRUE(recorder.waitForCount(i));
    }
    EXPECT_TRUE(sendsAtOnce());
}

TEST_F(APacedClient, GathersEveryStreamAndSendsAtOnceAgainAfterIt) {
    connect();
    for (auto const* const step : {&publish, &clear, &subscribe, &unsubscribe}) {
        stream(*step);
        EXPECT_TRUE(gathers());
        EXPECT_TRUE(sendsAtOnceAfterExchanges());
    }
}

} // namespace
