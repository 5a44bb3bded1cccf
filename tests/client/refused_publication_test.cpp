// A publication for which the broker closes the connection, each time that it is sent.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "mqtt/test/watched.hpp"
#include "support/log_lines.hpp"
#include "support/scripted_server.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::MqttPacket;
using support::ScriptedServer;
using testing::ElementsAre;
using testing::HasSubstr;
using Error = MqttClient::Error;
using Reaction = ScriptedServer::Reaction;
using Strings = std::vector<std::string>;
using Type = support::PacketType;

constexpr unsigned WAIT_SECONDS = 30;

std::string const REFUSED = "refused";

/// A client at a server that answers as the test says; with QoS and `persistent`.
class AClientOfAStrictServer : public testing::TestWithParam<std::tuple<int, bool>> {
protected:
    /// The server resets the connection at the first so many sendings of `REFUSED`.
    void refuse(int times) {
        server_.setHook([=](MqttPacket const& packet) mutable {
            bool const isRefused = packet.type == Type::PUBLISH && packet.topic == REFUSED;
            return isRefused && times-- > 0 ? Reaction::DROP : Reaction::ANSWER;
        });
    }
    static constexpr int ALWAYS = 1000;

    static int qos() { return std::get<0>(GetParam()); }

    std::unique_ptr<MqttClient> connectedClient() {
        mqtt::test::ClientOptions options;
        options.persistent = std::get<1>(GetParam());
        return mqtt::test::testClient(server_.host(), server_.port(), options);
    }

    void publish(std::string const& topic) {
        ASSERT_EQ(client_->publish(topic, topic, qos(), false), Error::SUCCESS);
    }
    Error publishAndWait(std::string const& topic, unsigned seconds = WAIT_SECONDS) {
        return client_->publishWait(topic, topic, qos(), false, seconds);
    }

    /// How often this topic was sent.
    std::ptrdiff_t sendings(std::string const& topic) const {
        auto const packets = server_.received(Type::PUBLISH);
        return std::count_if(packets.begin(), packets.end(),
                             [&](auto const& packet) { return packet.topic == topic; });
    }
    bool waitForSendings(std::string const& topic, std::ptrdiff_t count) const {
        return mqtt::test::eventually([&] { return sendings(topic) >= count; });
    }

    int reconnections() const { return server_.tcpConnections() - 1; }

    mqtt::test::StateRecorder states_;
    mqtt::test::MessageRecorder subscriber_;
    ScriptedServer server_;
    std::unique_ptr<MqttClient> client_ = connectedClient();
};
INSTANTIATE_TEST_SUITE_P(QosAndPersistent, AClientOfAStrictServer,
                         testing::Combine(testing::Values(1, 2), testing::Bool()));

TEST_P(AClientOfAStrictServer, GivesAPublicationUpThatIsRefusedThreeTimesAndTellsWhich) {
    support::LogLines const errors(mqtt::LogLevel::ERROR);
    refuse(ALWAYS);
    publish(REFUSED);
    ASSERT_TRUE(waitForSendings(REFUSED, 3));
    ASSERT_TRUE(mqtt::test::becomesConnected(*client_));
    EXPECT_EQ(client_->lastFailure().reason, mqtt::Failure::Reason::PUBLICATION_GIVEN_UP);
    EXPECT_EQ(client_->lastFailure().detail, "refused, 7 bytes");
    EXPECT_THAT(errors.copy(), ElementsAre(HasSubstr("(refused, 7 bytes)")));
    EXPECT_EQ(publishAndWait("next"), Error::SUCCESS);
    EXPECT_EQ(sendings(REFUSED), 3);
    EXPECT_EQ(reconnections(), 3);
}

TEST_P(AClientOfAStrictServer, KeepsAPublicationThatIsRefusedTwice) {
    refuse(2);
    EXPECT_EQ(publishAndWait(REFUSED), Error::SUCCESS);
    EXPECT_EQ(reconnections(), 2);
    // The connection is as any other one now.
    ASSERT_TRUE(mqtt::test::becomesConnected(*client_));
    ASSERT_EQ(client_->subscribe("a", &subscriber_, 0), Error::SUCCESS);
    EXPECT_EQ(publishAndWait("next"), Error::SUCCESS);
    ASSERT_TRUE(server_.publish("a", "x"));
    EXPECT_TRUE(subscriber_.waitForPayload("x"));
    client_->release(&subscriber_);
}

TEST_P(AClientOfAStrictServer, DoesNotReportARefusedPublicationAsDone) {
    refuse(ALWAYS);
    auto waiting = std::async(std::launch::async, [&] { return publishAndWait(REFUSED, 4); });
    ASSERT_TRUE(waitForSendings(REFUSED, 3));
    EXPECT_EQ(waiting.get(), Error::TIMEOUT);
}

/// Drops the connection at each fourth publication, whichever it is.
TEST_P(AClientOfAStrictServer, GivesNothingUpIfTheServerIsUnstable) {
    mqtt::test::Watched<std::set<std::string>> answered;
    server_.setHook([&, publications = 0](MqttPacket const& packet) mutable {
        if (packet.type != Type::PUBLISH) {
            return Reaction::ANSWER;
        }
        if (++publications % 4 == 0) {
            return Reaction::DROP;
        }
        answered.change([&](auto& all) { all.insert(packet.topic); });
        return Reaction::ANSWER;
    });
    constexpr std::size_t COUNT = 16;
    for (std::size_t i = 0; i < COUNT; ++i) {
        publish("a/" + std::to_string(i));
    }
    EXPECT_TRUE(answered.waitFor([](auto const& all) { return all.size() == COUNT; }));
}

class AClientOfASlowServer : public AClientOfAStrictServer {
protected:
    /// The connection after the second loss: the server has the publication, and does not answer.
    void waitForTheRelay() {
        server_.setHook([refusals = 0](MqttPacket const& packet) mutable {
            if (packet.type != Type::PUBLISH) {
                return Reaction::ANSWER;
            }
            return refusals++ < 2 ? Reaction::DROP : Reaction::IGNORE;
        });
        publish(REFUSED);
        ASSERT_TRUE(waitForSendings(REFUSED, 3));
    }
};
INSTANTIATE_TEST_SUITE_P(QosAndPersistent, AClientOfASlowServer,
                         testing::Combine(testing::Values(2), testing::Values(false)));

TEST_P(AClientOfASlowServer, DisconnectsInOrder) {
    waitForTheRelay();
    EXPECT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    EXPECT_TRUE(server_.waitForPackets(Type::DISCONNECT, 1));
    server_.setHook({});
    EXPECT_EQ(client_->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_EQ(publishAndWait("next"), Error::SUCCESS);
    EXPECT_EQ(sendings(REFUSED), 4);
}

TEST_P(AClientOfASlowServer, IsDestroyed) {
    waitForTheRelay();
    client_.reset();
    EXPECT_TRUE(server_.waitForNoConnection());
}

TEST_P(AClientOfASlowServer, BecomesConnectedThoughTheAnswerIsMissing) {
    waitForTheRelay();
    EXPECT_TRUE(mqtt::test::becomesConnected(*client_));
    EXPECT_EQ(client_->publishWait("next", "", 0, false, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_EQ(reconnections(), 2);
}

/// A real broker with a limit; QoS and size of what it does not take. Its answers to what was sent
/// ahead are lost with the connection that it closes.
class ABrokerWithAPacketLimit : public testing::TestWithParam<std::tuple<int, std::size_t>> {
protected:
    static mqtt::test::BrokerOptions options() {
        mqtt::test::BrokerOptions result;
        result.extraLines = {"max_packet_size 20000"};
        return result;
    }
    static mqtt::test::ClientOptions persistent() {
        mqtt::test::ClientOptions result;
        result.persistent = true;
        return result;
    }

    mqtt::test::Broker broker_{options()};
    mqtt::test::RawPeer peer_{broker_};
    std::unique_ptr<MqttClient> client_ = mqtt::test::testClient(broker_, persistent());
};
INSTANTIATE_TEST_SUITE_P(QosAndSize, ABrokerWithAPacketLimit,
                         testing::Combine(testing::Values(1, 2),
                                          testing::Values(30'000, 3'000'000)));

TEST_P(ABrokerWithAPacketLimit, GetsWhatIsPublishedAheadOfTooLargePublicationsAndBehind) {
    auto const [qos, size] = GetParam();
    std::string const tooLarge(size, 'x');
    peer_.subscribe("a", 2);
    Strings expected;
    for (int i = 0; i < 30; ++i) {
        expected.push_back(std::to_string(i));
        ASSERT_EQ(client_->publish("a", expected.back(), qos, false), Error::SUCCESS);
        if (i == 12 || i == 13) {
            ASSERT_EQ(client_->publish("a", tooLarge, qos, false), Error::SUCCESS);
        }
    }
    ASSERT_TRUE(peer_.waitFor(
        [&](auto const& all) { return !all.empty() && all.back().payload == expected.back(); }));
    auto payloads = peer_.payloads();
    if (qos == 1) { // some arrive more than once
        std::sort(payloads.begin(), payloads.end());
        payloads.erase(std::unique(payloads.begin(), payloads.end()), payloads.end());
        std::sort(expected.begin(), expected.end());
    }
    EXPECT_EQ(payloads, expected);
    EXPECT_EQ(client_->statistics().dropped.givenUp, 2U);
}

} // namespace
