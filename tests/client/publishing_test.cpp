// Publishing to a broker, with a connection and without.

#include "client/broker_session.hpp"

#include "support/scripted_server.hpp"

#include <atomic>
#include <optional>
#include <thread>
#include <tuple>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::Message;
using support::PacketType;
using testing::ElementsAre;
using Payloads = std::vector<std::string>;

Payloads numbers(int count) {
    Payloads result;
    for (int i = 0; i < count; ++i) {
        result.push_back(std::to_string(i));
    }
    return result;
}

class APublishingClientAtEveryQos : public AClientAtABroker,
                                    public testing::WithParamInterface<int> {
protected:
    void publish(std::string const& topic, std::string const& payload, bool retain = false) {
        EXPECT_EQ(client_->publish(topic, payload, GetParam(), retain), Error::SUCCESS);
    }
};

INSTANTIATE_TEST_SUITE_P(Qos, APublishingClientAtEveryQos, testing::Values(0, 1, 2));

TEST_P(APublishingClientAtEveryQos, PublishesOnceAndUnchangedNowOrWithTheNextConnection) {
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte += static_cast<char>(i);
    }
    Payloads const payloads{everyByte, "", std::string(1'000'000, '\0')};
    Payloads expected;
    for (bool const connected : {false, true}) {
        for (auto const& payload : payloads) {
            publish("a/b", payload);
            expected.push_back(payload);
        }
        publish("kept", "old", true);
        publish("kept", connected ? "connected" : "queued", true);
        expected.insert(expected.end(), {"old", connected ? "connected" : "queued"});
        if (!connected) {
            connect();
        }
    }
    EXPECT_TRUE(receivedPayloads() == expected);
    EXPECT_EQ(peer_.messages().front(), (Message{"a/b", everyByte, GetParam(), false}));
    EXPECT_EQ(support::retained(broker_, "a/b"), std::nullopt);
    EXPECT_EQ(support::retained(broker_, "kept"), (Message{"kept", "connected", GetParam(), true}));
}

TEST_P(APublishingClientAtEveryQos, KeepsTheOrderOfWhatIsPublishedWhileTheQueueIsSent) {
    constexpr int QUEUED = 300;
    constexpr int ALL = 1000;
    std::atomic<int> published{0};
    std::thread publisher([&] {
        while (published < ALL) {
            int const number = published;
            publish("a", std::to_string(number));
            published = number + 1;
            if (number >= QUEUED) {
                std::this_thread::yield();
            }
        }
    });
    EXPECT_TRUE(support::eventually([&] { return published >= QUEUED; }));
    connect();
    publisher.join();
    EXPECT_EQ(receivedPayloads(), numbers(ALL));
}

TEST_F(AClientAtABroker, CallsAQos0PublicationDoneWhenItIsWritten) {
    connect();
    broker_.suspend();
    EXPECT_EQ(client_->publishWait("a", "value", 0, false, WAIT_SECONDS), Error::SUCCESS);
    broker_.resume();
    EXPECT_THAT(receivedPayloads(), ElementsAre("value"));
}

TEST(AWaitForAQos2Publication, EndsWithTheLastPacketOfTheHandshake) {
    using Error = MqttClient::Error;
    support::ScriptedServer server;
    auto const client = support::testClient(server.host(), server.port());
    server.hold(PacketType::PUBREL);
    EXPECT_EQ(client->publishWait("a", "value", 2, false, 1), Error::TIMEOUT);
    EXPECT_TRUE(server.waitForPackets(PacketType::PUBREL, 1));
    server.release();
    EXPECT_EQ(client->publishWait("a", "value", 2, false, 30), Error::SUCCESS);
}

/// Published while the broker stands still, so still in flight when it dies. The client is kept
/// from reconnecting until a peer has subscribed at the new broker.
class APublicationInFlightWhenTheBrokerDies
    : public testing::TestWithParam<std::tuple<int, int, bool>> {
protected:
    using Error = MqttClient::Error;

    APublicationInFlightWhenTheBrokerDies() {
        support::ClientOptions options;
        options.persistent = std::get<2>(GetParam());
        client_ = support::testClient(broker_, options);
        client_->registerListener(&states_);
    }

    void publishTo(int end) {
        for (; next_ < end; ++next_) {
            EXPECT_EQ(client_->publish("a", std::to_string(next_), std::get<1>(GetParam()), true),
                      Error::SUCCESS);
        }
    }

    void restartBrokerWithPeer() {
        client_->pause();
        broker_.start();
        peer_ = std::make_unique<support::RawPeer>(broker_);
        peer_->subscribe("#");
        client_->resume();
        ASSERT_TRUE(states_.waitFor(ComState::CONNECTED));
    }

    support::Broker broker_;
    support::StateRecorder states_;
    std::unique_ptr<support::RawPeer> peer_;
    std::unique_ptr<MqttClient> client_;
    int next_ = 0;
};

// 60 are more than the library sends without an acknowledgement.
INSTANTIATE_TEST_SUITE_P(CountQosAndSession, APublicationInFlightWhenTheBrokerDies,
                         testing::Combine(testing::Values(3, 60), testing::Values(1, 2),
                                          testing::Bool()));

TEST_P(APublicationInFlightWhenTheBrokerDies, ArrivesBeforeWhatWasQueuedEachOnce) {
    int const count = std::get<0>(GetParam());
    broker_.suspend();
    publishTo(count);
    broker_.kill();
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    publishTo(2 * count);
    restartBrokerWithPeer();
    ASSERT_TRUE(peer_->waitForMessages(static_cast<std::size_t>(2 * count)));
    publishTo(2 * count + 1);
    ASSERT_TRUE(peer_->waitForMessages(static_cast<std::size_t>(2 * count + 1)));
    EXPECT_EQ(peer_->payloads(), numbers(2 * count + 1));
    EXPECT_EQ(support::retained(broker_, "a")->payload, std::to_string(2 * count));
}

} // namespace
