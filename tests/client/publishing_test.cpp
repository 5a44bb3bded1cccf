#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/scripted_server.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using conv::SecondsDuration;
using mqtt::MqttClient;
using mqtt::Topic;
using support::Broker;
using support::Message;
using support::PacketType;
using support::RawPeer;
using support::ScriptedServer;
using testing::ElementsAre;
using Error = MqttClient::Error;

constexpr auto MALFORMED_UTF8 = static_cast<Error>(18);
/// Enough for everything that does happen.
SecondsDuration const PATIENCE{30};

class AConnectedClient : public testing::Test {
protected:
    AConnectedClient() { peer_.subscribe("#"); }

    std::optional<Message> retained(std::string const& topic) const {
        return support::retained(broker_, topic);
    }

    /// All that the peer has got once what this client published before has arrived.
    std::vector<std::string> payloadsUpToHere() {
        EXPECT_EQ(client_->publishWait("up/to/here", "end", 2, false, PATIENCE), Error::SUCCESS);
        EXPECT_TRUE(peer_.waitFor(
            [](auto const& all) { return !all.empty() && all.back().topic == "up/to/here"; }));
        auto result = peer_.payloads();
        result.pop_back();
        return result;
    }

    /// It may overtake the call that it answers.
    bool waitForEcho() const {
        return peer_.waitFor([](auto const& all) {
            return std::any_of(all.begin(), all.end(), [](Message const& message) {
                return message.topic == "echo" && message.payload == "value";
            });
        });
    }

    Broker broker_;
    RawPeer peer_{broker_};
    std::unique_ptr<MqttClient> client_ = support::testClient(broker_);
};

class AClientAtEveryQos : public AConnectedClient, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Qos, AClientAtEveryQos, testing::Values(0, 1, 2));

TEST_P(AClientAtEveryQos, PublishesOnceWithThatQos) {
    EXPECT_EQ(client_->publish("a/b", "value", GetParam(), false), Error::SUCCESS);
    ASSERT_TRUE(peer_.waitForMessages(1));
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("value"));
    EXPECT_EQ(peer_.messages().front(), (Message{"a/b", "value", GetParam(), false}));
}

TEST_P(AClientAtEveryQos, RetainsWhatItIsAskedToRetain) {
    EXPECT_EQ(client_->publish("kept", "value", GetParam(), true), Error::SUCCESS);
    EXPECT_EQ(client_->publish("passing", "value", GetParam(), false), Error::SUCCESS);
    ASSERT_TRUE(peer_.waitForMessages(2));
    EXPECT_EQ(retained("kept"), (Message{"kept", "value", GetParam(), true}));
    EXPECT_EQ(retained("passing"), std::nullopt);
}

TEST_P(AClientAtEveryQos, RetainsOnlyTheLastOfManyValues) {
    for (int i = 0; i <= 100; ++i) {
        EXPECT_EQ(client_->publish("kept", std::to_string(i), GetParam(), true), Error::SUCCESS);
    }
    ASSERT_TRUE(peer_.waitForMessages(101));
    EXPECT_EQ(retained("kept"), (Message{"kept", "100", GetParam(), true}));
}

TEST_P(AClientAtEveryQos, PublishesPayloadsOfAnyBytes) {
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte += static_cast<char>(i);
    }
    std::string const large(1'000'000, '\0');
    EXPECT_EQ(client_->publish("a", everyByte, GetParam(), false), Error::SUCCESS);
    EXPECT_EQ(client_->publish("a", "", GetParam(), false), Error::SUCCESS);
    EXPECT_EQ(client_->publish("a", large, GetParam(), false), Error::SUCCESS);
    ASSERT_TRUE(peer_.waitForMessages(3));
    EXPECT_TRUE(peer_.payloads() == (std::vector<std::string>{everyByte, "", large}));
}

TEST_P(AClientAtEveryQos, WaitsAndThenTheValueIsThere) {
    EXPECT_EQ(client_->publishWait("a", "value", GetParam(), true, PATIENCE), Error::SUCCESS);
    if (GetParam() != 0) {
        EXPECT_EQ(retained("a"), (Message{"a", "value", GetParam(), true}));
    }
    EXPECT_TRUE(peer_.waitForMessages(1));
}

TEST_P(AClientAtEveryQos, WaitsWithoutLimitWhenAskedTo) {
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(
            client_->publishWait("a", "value", GetParam(), false, SecondsDuration(UINT32_MAX)),
            Error::SUCCESS);
    }
}

TEST_P(AClientAtEveryQos, PublishesFromInsideASubscriber) {
    support::MessageRecorder echo([&](int, Topic const&, std::string const& payload) {
        EXPECT_EQ(client_->publish("echo", payload, GetParam(), false), Error::SUCCESS);
    });
    ASSERT_EQ(client_->subscribe("call", &echo, 0), Error::SUCCESS);
    payloadsUpToHere(); // so the subscription stands at the broker
    peer_.publish("call", "value");
    EXPECT_TRUE(waitForEcho());
    client_->release(&echo);
}

TEST_P(AClientAtEveryQos, WaitsInVainInsideASubscriberButPublishes) {
    Error result = Error::SUCCESS;
    support::MessageRecorder echo([&](int, Topic const&, std::string const& payload) {
        result =
            client_->publishWait("echo", payload, GetParam(), false, SecondsDuration::NO_TIMEOUT);
    });
    ASSERT_EQ(client_->subscribe("call", &echo, 0), Error::SUCCESS);
    payloadsUpToHere(); // so the subscription stands at the broker
    peer_.publish("call", "value");
    EXPECT_TRUE(waitForEcho());
    client_->release(&echo);
    EXPECT_EQ(result, Error::TIMEOUT);
}

TEST_F(AConnectedClient, CallsAQos0PublicationDoneWhenItIsWritten) {
    broker_.suspend();
    EXPECT_EQ(client_->publishWait("a", "value", 0, false, PATIENCE), Error::SUCCESS);
    broker_.resume();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("value"));
}

TEST_F(AConnectedClient, WaitsForTheAcknowledgementOfAQos1Publication) {
    broker_.suspend();
    EXPECT_EQ(client_->publishWait("a", "value", 1, false, 1), Error::TIMEOUT);
    broker_.resume();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre("value"));
}

TEST(AWaitForAQos2Publication, EndsWithTheLastPacketOfTheHandshake) {
    ScriptedServer server;
    auto const client = support::testClient(server.host(), server.port());
    server.hold(PacketType::PUBREL);
    EXPECT_EQ(client->publishWait("a", "value", 2, false, 1), Error::TIMEOUT);
    EXPECT_TRUE(server.waitForPackets(PacketType::PUBREL, 1));
    server.release();
    EXPECT_EQ(client->publishWait("a", "value", 2, false, PATIENCE), Error::SUCCESS);
}

TEST(AWaitForAPublication, IsNotEndedByTheAcknowledgementOfAnother) {
    ScriptedServer server;
    auto const client = support::testClient(server.host(), server.port());
    std::atomic<int> published{0};
    server.setHook([&](support::MqttPacket const& packet) {
        bool const isSecond = packet.type == PacketType::PUBLISH && ++published == 2;
        return isSecond ? ScriptedServer::Reaction::IGNORE : ScriptedServer::Reaction::ANSWER;
    });
    EXPECT_EQ(client->publishWait("a", "first", 1, false, PATIENCE), Error::SUCCESS);
    Error result = Error::SUCCESS;
    std::thread waiter([&] { result = client->publishWait("a", "second", 1, false, 2); });
    EXPECT_TRUE(server.waitForPackets(PacketType::PUBLISH, 2));
    EXPECT_EQ(client->publish("a", "third", 1, false), Error::SUCCESS);
    EXPECT_TRUE(server.waitForPackets(PacketType::PUBLISH, 3));
    waiter.join();
    EXPECT_EQ(result, Error::TIMEOUT);
}

TEST_F(AConnectedClient, SendsTheMessageThoughItDoesNotWaitAtAll) {
    broker_.suspend();
    EXPECT_EQ(client_->publishWait("a", "one", 1, false, 0), Error::TIMEOUT);
    EXPECT_EQ(client_->publishWait("a", "two", 2, false, 0), Error::TIMEOUT);
    broker_.resume();
    EXPECT_THAT(payloadsUpToHere(), testing::UnorderedElementsAre("one", "two"));
}

TEST_F(AConnectedClient, ErasesARetainedMessage) {
    peer_.publish("kept", "value", 2, true);
    peer_.publish("kept/too", "value", 2, true);
    ASSERT_TRUE(peer_.waitForMessages(2));
    peer_.clearMessages();
    EXPECT_EQ(client_->clear("kept"), Error::SUCCESS);
    ASSERT_TRUE(peer_.waitForMessages(1));
    EXPECT_EQ(peer_.messages().front(), (Message{"kept", "", 2, false}));
    EXPECT_EQ(retained("kept"), std::nullopt);
    EXPECT_TRUE(retained("kept/too"));
}

TEST_F(AConnectedClient, ErasesWhereNothingIsRetained) {
    EXPECT_EQ(client_->clear("never/used"), Error::SUCCESS);
    EXPECT_THAT(payloadsUpToHere(), ElementsAre(""));
}

TEST_F(AConnectedClient, ErasesWithOneRetainedQos2Publication) {
    ScriptedServer server;
    auto const client = support::testClient(server.host(), server.port());
    EXPECT_EQ(client->clear("kept"), Error::SUCCESS);
    ASSERT_TRUE(server.waitForPackets(PacketType::PUBREL, 1));
    auto const packets = server.received(PacketType::PUBLISH);
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].topic, "kept");
    EXPECT_EQ(packets[0].payload, "");
    EXPECT_EQ(packets[0].qos, 2);
    EXPECT_TRUE(packets[0].retain);
}

TEST_F(AConnectedClient, AnswersNoConnectionToClearAndKeepsTheRetainedMessage) {
    peer_.publish("kept", "value", 2, true);
    ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    EXPECT_EQ(client_->clear("kept"), Error::NO_CONN);
    EXPECT_TRUE(retained("kept"));
}

TEST_F(AConnectedClient, PublishesFromManyThreadsInTheOrderOfEach) {
    constexpr int threads = 4;
    constexpr int values = 250;
    std::vector<std::thread> publishers;
    for (int thread = 0; thread < threads; ++thread) {
        publishers.emplace_back([&, topic = "thread/" + std::to_string(thread)] {
            for (int i = 0; i < values; ++i) {
                EXPECT_EQ(client_->publish(topic, std::to_string(i), 2, false), Error::SUCCESS);
            }
        });
    }
    for (auto& publisher : publishers) {
        publisher.join();
    }
    ASSERT_TRUE(peer_.waitForMessages(threads * values));
    std::map<std::string, int> next;
    for (auto const& message : peer_.messages()) {
        EXPECT_EQ(message.payload, std::to_string(next[message.topic]++)) << message.topic;
    }
}

/// What is refused, and how: the same whether there is a connection or not.
struct Refusal {
    std::string name;
    std::string topic;
    int qos;
    Error result;
};

void PrintTo(Refusal const& refusal, std::ostream* out) {
    *out << refusal.name;
}

class ARefusedPublication : public AConnectedClient, public testing::WithParamInterface<Refusal> {
protected:
    void expectRefusals() {
        auto const& [name, topic, qos, result] = GetParam();
        EXPECT_EQ(client_->publish(topic, "refused", qos, true), result);
        EXPECT_EQ(client_->publishWait(topic, "refused", qos, true, PATIENCE), result);
        if (qos == 2) {
            EXPECT_EQ(client_->clear(topic), result);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(
    Because, ARefusedPublication,
    testing::Values(Refusal{"QosIsTooHigh", "a", 3, Error::INVALID_PARAMETER},
                    Refusal{"QosIsFarTooHigh", "a", 256, Error::INVALID_PARAMETER},
                    Refusal{"QosIsNegative", "a", -1, Error::INVALID_PARAMETER},
                    Refusal{"TopicIsEmpty", "", 2, Error::INVALID_PARAMETER},
                    Refusal{"TopicIsASlash", "/", 2, Error::INVALID_PARAMETER},
                    Refusal{"TopicIsAWildcard", "#", 2, Error::INVALID_PARAMETER},
                    Refusal{"TopicEndsInAWildcard", "a/#", 2, Error::INVALID_PARAMETER},
                    Refusal{"TopicHasAWildcardLevel", "a/+/b", 2, Error::INVALID_PARAMETER},
                    Refusal{"TopicHasAWildcardInALevel", "a+b", 2, Error::INVALID_PARAMETER},
                    Refusal{"TopicIsJustTooLong", std::string(65536, 'a'), 2,
                            Error::INVALID_PARAMETER},
                    Refusal{"TopicIsTooLong", std::string(65537, 'a'), 2, MALFORMED_UTF8},
                    Refusal{"TopicIsNotUtf8", "a/\xFF", 2, MALFORMED_UTF8},
                    Refusal{"TopicIsNotUtf8AtQos0", "a/\xFF", 0, MALFORMED_UTF8},
                    Refusal{"TopicIsNotUtf8AndAWildcard", "\xFF/#", 2, MALFORMED_UTF8},
                    Refusal{"TopicHasASurrogate", "a/\xED\xA0\x80", 2, MALFORMED_UTF8},
                    Refusal{"TopicHasAControlCharacter", "a/\x01", 2, MALFORMED_UTF8},
                    Refusal{"TopicHasAZeroByte", std::string("a\0b", 3), 2, MALFORMED_UTF8},
                    Refusal{"TopicHasAZeroByteAtItsEnd", std::string("a\0", 2), 0, MALFORMED_UTF8},
                    Refusal{"TopicBeginsWithAZeroByte", std::string("\0a", 2), 2, MALFORMED_UTF8}),
    [](auto const& row) { return row.param.name; });

TEST_P(ARefusedPublication, IsAnsweredWithTheReasonAndTheConnectionStays) {
    support::StateRecorder states;
    client_->registerListener(&states);
    expectRefusals();
    EXPECT_THAT(payloadsUpToHere(), ElementsAre());
    EXPECT_THAT(states.history(), ElementsAre());
    client_->unregisterListener(&states);
}

TEST_P(ARefusedPublication, IsAnsweredTheSameOfflineAndNeverQueued) {
    ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    expectRefusals();
    ASSERT_EQ(client_->connect("", -1, PATIENCE), Error::SUCCESS);
    EXPECT_THAT(payloadsUpToHere(), ElementsAre());
}

TEST_F(AConnectedClient, RefusesAPayloadThatIsTooLargeOnlineAndOffline) {
    std::string const tooLarge(268'435'453, 'x'); // three bytes are left for the rest
    for (int qos : {0, 1, 2}) {
        EXPECT_EQ(client_->publish("a", tooLarge, qos, true), Error::PAYLOAD_SIZE);
        EXPECT_EQ(client_->publishWait("a", tooLarge, qos, true, PATIENCE), Error::PAYLOAD_SIZE);
    }
    ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    for (int qos : {0, 1, 2}) {
        EXPECT_EQ(client_->publish("a", tooLarge, qos, true), Error::PAYLOAD_SIZE);
        EXPECT_EQ(client_->publishWait("a", tooLarge, qos, true, PATIENCE), Error::PAYLOAD_SIZE);
    }
    ASSERT_EQ(client_->connect("", -1, PATIENCE), Error::SUCCESS);
    EXPECT_THAT(payloadsUpToHere(), ElementsAre());
}

} // namespace
