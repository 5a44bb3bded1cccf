#include "support/broker.hpp"
#include "support/cut_proxy.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/scripted_server.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using conv::ComState;
using conv::SecondsDuration;
using mqtt::MqttClient;
using support::Broker;
using support::Message;
using support::PacketType;
using support::RawPeer;
using support::ScriptedServer;
using testing::ElementsAre;
using Error = MqttClient::Error;
using Payloads = std::vector<std::string>;

/// Enough for everything that does happen.
SecondsDuration const PATIENCE{30};

Payloads numbers(int count) {
    Payloads result;
    for (int i = 0; i < count; ++i) {
        result.push_back(std::to_string(i));
    }
    return result;
}

std::unique_ptr<MqttClient> idleClient(std::string const& host, int port, bool persistent = false,
                                       zym::common::Uuid id = zym::common::Uuid::NIL) {
    support::ClientOptions options;
    options.connect = false;
    options.persistent = persistent;
    options.id = id;
    return support::testClient(host, port, options);
}

/// A client that has never been connected, at a broker where a peer listens.
class AnOfflineClient : public testing::Test {
protected:
    AnOfflineClient() { peer_.subscribe("#"); }

    void connect() { ASSERT_EQ(client_->connect("", -1, PATIENCE), Error::SUCCESS); }

    /// All that the peer has got once what this client published before has arrived.
    Payloads payloadsUpToHere() {
        EXPECT_EQ(client_->publishWait("up/to/here", "end", 2, false, PATIENCE), Error::SUCCESS);
        EXPECT_TRUE(peer_.waitFor(
            [](auto const& all) { return !all.empty() && all.back().topic == "up/to/here"; }));
        auto result = peer_.payloads();
        result.pop_back();
        return result;
    }

    Broker broker_;
    RawPeer peer_{broker_};
    std::unique_ptr<MqttClient> client_ = idleClient(broker_.host(), broker_.port());
};

class AnOfflineClientAtEveryQos : public AnOfflineClient,
                                  public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Qos, AnOfflineClientAtEveryQos, testing::Values(0, 1, 2));

TEST_P(AnOfflineClientAtEveryQos, PublishesOnceAndUnchangedWhenTheConnectionComes) {
    std::string const bytes("a\0\xFF", 3);
    EXPECT_EQ(client_->publish("a/b", bytes, GetParam(), false), Error::SUCCESS);
    EXPECT_EQ(client_->publish("kept", "value", GetParam(), true), Error::SUCCESS);
    connect();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre(bytes, "value"));
    EXPECT_EQ(peer_.messages().front(), (Message{"a/b", bytes, GetParam(), false}));
    EXPECT_EQ(support::retained(broker_, "a/b"), std::nullopt);
    EXPECT_EQ(support::retained(broker_, "kept"), (Message{"kept", "value", GetParam(), true}));
}

TEST_P(AnOfflineClientAtEveryQos, KeepsTheOrder) {
    for (auto const& number : numbers(300)) {
        EXPECT_EQ(client_->publish("a", number, GetParam(), true), Error::SUCCESS);
    }
    connect();
    EXPECT_EQ(payloadsUpToHere(), numbers(300));
    EXPECT_EQ(support::retained(broker_, "a")->payload, "299");
}

TEST_P(AnOfflineClientAtEveryQos, KeepsTheOrderOfWhatIsPublishedWhileTheQueueIsSent) {
    constexpr int before = 300;
    constexpr int count = 1000;
    std::atomic<int> published{0};
    std::thread publisher([&] {
        while (published < count) {
            int const number = published;
            EXPECT_EQ(client_->publish("a", std::to_string(number), GetParam(), false),
                      Error::SUCCESS);
            published = number + 1;
            if (number >= before) {
                std::this_thread::yield();
            }
        }
    });
    EXPECT_TRUE(support::eventually([&] { return published >= before; }));
    connect();
    publisher.join();
    EXPECT_EQ(payloadsUpToHere(), numbers(count));
}

TEST_P(AnOfflineClientAtEveryQos, DoesNotWaitThoughAskedToAndQueues) {
    EXPECT_EQ(client_->publishWait("a", "value", GetParam(), false, SecondsDuration(UINT32_MAX)),
              Error::SUCCESS);
    connect();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("value"));
}

TEST_P(AnOfflineClientAtEveryQos, PublishesWhatWasQueuedAfterADisconnectionOnPurpose) {
    connect();
    ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client_->publish("a", "one", GetParam(), false), Error::SUCCESS);
    EXPECT_EQ(client_->publishWait("a", "two", GetParam(), false, PATIENCE), Error::SUCCESS);
    connect();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("one", "two"));
}

TEST_P(AnOfflineClientAtEveryQos, DropsItsQueueWhenDestroyed) {
    auto const id = support::uniqueId();
    client_ = idleClient(broker_.host(), broker_.port(), true, id);
    EXPECT_EQ(client_->publish("a", "dropped", GetParam(), true), Error::SUCCESS);
    client_ = idleClient(broker_.host(), broker_.port(), true, id);
    connect();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre());
}

TEST_F(AnOfflineClient, SendsTheQueueWithTheFirstConnectionOnly) {
    EXPECT_EQ(client_->publish("a", "value", 1, false), Error::SUCCESS);
    for (int i = 0; i < 3; ++i) {
        connect();
        // Acknowledged, and so is all that was sent before it.
        EXPECT_EQ(client_->publishWait("a", "mark", 1, false, PATIENCE), Error::SUCCESS);
        ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    }
    connect();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("value", "mark", "mark", "mark"));
}

TEST_F(AnOfflineClient, NeverCarriesAClearOut) {
    peer_.publish("kept", "value", 2, true);
    ASSERT_TRUE(peer_.waitForMessages(1));
    EXPECT_EQ(client_->clear("kept"), Error::NO_CONN);
    connect();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("value"));
    EXPECT_TRUE(support::retained(broker_, "kept"));
}

TEST_F(AnOfflineClient, ClearsAgainOnceItIsConnected) {
    EXPECT_EQ(client_->publish("kept", "value", 2, true), Error::SUCCESS);
    EXPECT_EQ(client_->clear("kept"), Error::NO_CONN);
    connect();
    EXPECT_EQ(client_->clear("kept"), Error::SUCCESS);
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("value", ""));
    EXPECT_EQ(support::retained(broker_, "kept"), std::nullopt);
}

TEST(AQueue, IsSentAfterTheSubscriptionsAndBeforeTheStateBecomesConnected) {
    ScriptedServer server;
    support::MessageRecorder recorder;
    MqttClient* publisher = nullptr;
    support::StateRecorder states([&](ComState state) {
        if (state == ComState::CONNECTED) {
            EXPECT_EQ(publisher->publish("a", "connected", 2, false), Error::SUCCESS);
        }
    });
    auto const client = idleClient(server.host(), server.port());
    publisher = client.get();
    client->registerListener(&states);
    for (int qos : {0, 1, 2}) {
        EXPECT_EQ(client->publish("a", std::to_string(qos), qos, false), Error::SUCCESS);
    }
    EXPECT_EQ(client->subscribe("b", &recorder, 0), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS);
    ASSERT_TRUE(server.waitForPackets(PacketType::PUBLISH, 4));
    Payloads heard;
    for (auto const& received : server.received()) {
        if (received.packet.type == PacketType::SUBSCRIBE) {
            heard.push_back("subscribe " + received.packet.topic);
        } else if (received.packet.type == PacketType::PUBLISH) {
            heard.push_back(received.packet.payload);
        }
    }
    EXPECT_THAT(heard, ElementsAre("subscribe b", "0", "1", "2", "connected"));
}

TEST(AQueue, IsNeverSentAheadOfTheBrokersConsent) {
    ScriptedServer server;
    server.hold(PacketType::CONNECT);
    auto const client = idleClient(server.host(), server.port());
    EXPECT_EQ(client->publish("a", "before", 2, false), Error::SUCCESS);
    EXPECT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(server.waitForPackets(PacketType::CONNECT, 1));
    EXPECT_EQ(client->publish("a", "while connecting", 2, false), Error::SUCCESS);
    EXPECT_EQ(client->clear("a"), Error::NO_CONN);
    EXPECT_EQ(client->communicationState(), ComState::CONNECTING);
    EXPECT_EQ(server.count(PacketType::PUBLISH), 0U);
    server.release();
    ASSERT_TRUE(server.waitForPackets(PacketType::PUBREL, 2));
    auto const published = server.received(PacketType::PUBLISH);
    ASSERT_EQ(published.size(), 2U);
    EXPECT_EQ(published[0].payload, "before");
    EXPECT_EQ(published[1].payload, "while connecting");
}

TEST(AQueue, OutlivesRefusedConnections) {
    ScriptedServer server;
    server.refuseWith(3);
    auto const client = idleClient(server.host(), server.port());
    for (auto const& number : numbers(10)) {
        EXPECT_EQ(client->publish("a", number, 1, false), Error::SUCCESS);
    }
    EXPECT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(server.waitForPackets(PacketType::CONNECT, 2));
    EXPECT_EQ(server.count(PacketType::PUBLISH), 0U);
    server.setMode(ScriptedServer::Mode::BROKER);
    ASSERT_TRUE(support::becomesConnected(*client));
    ASSERT_TRUE(server.waitForPackets(PacketType::PUBLISH, 10));
    Payloads heard;
    for (auto const& packet : server.received(PacketType::PUBLISH)) {
        heard.push_back(packet.payload);
    }
    EXPECT_EQ(heard, numbers(10));
}

/// Its connection leads through a proxy, so that it can be cut while broker and peer stay.
class AClientThatLosesItsConnection : public testing::TestWithParam<int> {
protected:
    AClientThatLosesItsConnection() {
        peer_.subscribe("#");
        client_ = support::testClient(proxy_.host(), proxy_.port());
        client_->registerListener(&states_);
    }

    void loseConnection() {
        proxy_.freeze();
        proxy_.cutNow();
        ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    }

    void comeBack() {
        proxy_.thaw();
        ASSERT_TRUE(states_.waitFor(ComState::CONNECTED));
    }

    Broker broker_;
    support::CutProxy proxy_{broker_.port()};
    RawPeer peer_{broker_};
    support::StateRecorder states_;
    std::unique_ptr<MqttClient> client_;
};

INSTANTIATE_TEST_SUITE_P(Qos, AClientThatLosesItsConnection, testing::Values(0, 1, 2));

TEST_P(AClientThatLosesItsConnection, PublishesWhatWasQueuedOnceAndInOrder) {
    EXPECT_EQ(client_->publishWait("a", "0", GetParam(), false, PATIENCE), Error::SUCCESS);
    // At QoS 0 "done" means written to the network.
    ASSERT_TRUE(peer_.waitForMessages(1));
    loseConnection();
    for (int i = 1; i < 50; ++i) {
        EXPECT_EQ(client_->publish("a", std::to_string(i), GetParam(), false), Error::SUCCESS);
    }
    comeBack();
    EXPECT_EQ(client_->publish("a", "50", GetParam(), false), Error::SUCCESS);
    ASSERT_TRUE(peer_.waitForMessages(51));
    EXPECT_EQ(client_->publishWait("a", "51", GetParam(), false, PATIENCE), Error::SUCCESS);
    ASSERT_TRUE(peer_.waitForMessages(52));
    EXPECT_EQ(peer_.payloads(), numbers(52));
}

TEST_P(AClientThatLosesItsConnection, ForgetsAClear) {
    EXPECT_EQ(client_->publishWait("kept", "value", 2, true, PATIENCE), Error::SUCCESS);
    loseConnection();
    EXPECT_EQ(client_->clear("kept"), Error::NO_CONN);
    comeBack();
    EXPECT_EQ(client_->publishWait("end", "end", 2, false, PATIENCE), Error::SUCCESS);
    ASSERT_TRUE(peer_.waitForMessages(2));
    EXPECT_THAT(peer_.payloads(), ElementsAre("value", "end"));
    EXPECT_TRUE(support::retained(broker_, "kept"));
}

/// Published while the broker stands still, so in flight as it dies; the client is then kept
/// from coming back until a peer listens at the new broker.
class APublicationInFlightAsTheBrokerDies : public testing::TestWithParam<std::tuple<int, bool>> {
protected:
    int qos() const { return std::get<0>(GetParam()); }

    APublicationInFlightAsTheBrokerDies() {
        support::ClientOptions options;
        options.persistent = std::get<1>(GetParam());
        client_ = support::testClient(broker_, options);
        client_->registerListener(&states_);
    }

    void killBroker() {
        broker_.kill();
        ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    }

    void restartBrokerWithPeer() {
        client_->pause();
        broker_.start();
        peer_ = std::make_unique<RawPeer>(broker_);
        peer_->subscribe("#");
        client_->resume();
        ASSERT_TRUE(states_.waitFor(ComState::CONNECTED));
    }

    Broker broker_;
    support::StateRecorder states_;
    std::unique_ptr<RawPeer> peer_;
    std::unique_ptr<MqttClient> client_;
};

INSTANTIATE_TEST_SUITE_P(QosAndSession, APublicationInFlightAsTheBrokerDies,
                         testing::Combine(testing::Values(1, 2), testing::Bool()));

TEST_P(APublicationInFlightAsTheBrokerDies, ArrivesBeforeWhatWasQueuedEachOnce) {
    broker_.suspend();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client_->publish("a", std::to_string(i), qos(), true), Error::SUCCESS);
    }
    killBroker();
    for (int i = 3; i < 6; ++i) {
        EXPECT_EQ(client_->publish("a", std::to_string(i), qos(), true), Error::SUCCESS);
    }
    restartBrokerWithPeer();
    EXPECT_EQ(client_->publishWait("a", "6", qos(), true, PATIENCE), Error::SUCCESS);
    ASSERT_TRUE(peer_->waitForMessages(7));
    EXPECT_EQ(peer_->payloads(), numbers(7));
    EXPECT_EQ(support::retained(broker_, "a")->payload, "6");
}

TEST_P(APublicationInFlightAsTheBrokerDies, ArrivesBeforeWhatWasQueuedThoughTheyAreMany) {
    // More than the library sends without an acknowledgement.
    broker_.suspend();
    for (int i = 0; i < 60; ++i) {
        EXPECT_EQ(client_->publish("a", std::to_string(i), qos(), true), Error::SUCCESS);
    }
    killBroker();
    for (int i = 60; i < 120; ++i) {
        EXPECT_EQ(client_->publish("a", std::to_string(i), qos(), true), Error::SUCCESS);
    }
    restartBrokerWithPeer();
    ASSERT_TRUE(peer_->waitForMessages(120));
    EXPECT_EQ(client_->publishWait("a", "120", qos(), true, PATIENCE), Error::SUCCESS);
    ASSERT_TRUE(peer_->waitForMessages(121));
    EXPECT_EQ(peer_->payloads(), numbers(121));
    EXPECT_EQ(support::retained(broker_, "a")->payload, "120");
}

} // namespace
