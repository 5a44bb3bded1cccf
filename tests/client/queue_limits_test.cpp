// Limits of what a client keeps for the broker, and of payloads, as the broker library sees them.

#include "client/client_on_a_script.hpp"

#include "mqtt/test/watched.hpp"
#include "support/log_lines.hpp"

#include <mqtt/connection_options.hpp>

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using mqtt::QueueLimits;
using support::StandIn;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using Error = mqtt::MqttClient::Error;
using Operation = StandIn::Operation;
using Policy = QueueLimits::Policy;
using Strings = std::vector<std::string>;

class AClientWithLimits : public AClientOnAScript {
protected:
    void setLimits(std::size_t messages, std::size_t bytes, Policy policy) {
        mqtt::ConnectionOptions options;
        options.queueLimits = {messages, bytes, policy};
        ASSERT_EQ(client_->setOptions(options), Error::SUCCESS);
    }
    void limitMessages(std::size_t messages, Policy policy) {
        setLimits(messages, QueueLimits::NO_LIMIT, policy);
    }

    void startAnew() {
        client_ = idleClient();
        script_ = StandIn::last();
    }

    void connectToABrokerThatDoesNotRead() {
        script_->setAcknowledging(false);
        connect();
    }

    /// The payload is the number; the topic its last digit modulo two.
    Error publish(int number, int qos = 1) {
        return client_->publish(std::to_string(number % 2), std::to_string(number), qos, false);
    }
    std::vector<Error> publishAll(int count, int qos = 1) {
        std::vector<Error> results;
        for (int i = 0; i < count; ++i) {
            results.push_back(publish(i, qos));
        }
        return results;
    }

    /// The broker reads and answers again, until nothing is left.
    void acknowledgeAll() {
        script_->setAcknowledging(true);
        for (auto const& call : script_->calls(Operation::PUBLISH)) {
            script_->post([mid = call.mid](auto& object) { object.on_publish(mid); });
        }
        ASSERT_TRUE(mqtt::test::eventually([&] { return client_->statistics().queued == 0; }));
    }

    static Strings numbers(int first, int end) {
        Strings result;
        for (int i = first; i < end; ++i) {
            result.push_back(std::to_string(i));
        }
        return result;
    }
};

struct PolicyCase {
    Policy policy;
    std::vector<Error> results; ///< of the publications
    Strings sent;               ///< in the end, of those that wait
};

TEST_F(AClientWithLimits, KeepsWhatItsPolicySaysWithoutAConnection) {
    constexpr auto OK = Error::SUCCESS;
    constexpr auto FULL = Error::NO_MEMORY;
    for (auto const& [policy, results, sent] : {
             PolicyCase{Policy::REJECT_NEW, {OK, OK, FULL, FULL}, {"1", "2"}},
             PolicyCase{Policy::DROP_OLDEST, {OK, OK, OK, OK}, {"3", "4"}},
             PolicyCase{Policy::NEWEST_OF_EACH_TOPIC, {OK, OK, OK, FULL}, {"2", "3"}},
         }) {
        SCOPED_TRACE(static_cast<int>(policy));
        startAnew();
        limitMessages(2, policy);
        EXPECT_EQ(client_->publish("a", "1", 1, true), results[0]);
        EXPECT_EQ(client_->publish("b", "2", 0, false), results[1]);
        EXPECT_EQ(client_->publish("a", "3", 2, false), results[2]);
        EXPECT_EQ(client_->publish("c", "4", 0, true), results[3]);
        connect();
        EXPECT_EQ(published(), sent);
    }
}

TEST_F(AClientWithLimits, CountsTopicPayloadAndAFixedPartOfEachPublication) {
    constexpr std::size_t ONE = QueueLimits::BYTES_PER_MESSAGE + 1 + 10;
    setLimits(QueueLimits::NO_LIMIT, 2 * ONE, Policy::REJECT_NEW);
    EXPECT_EQ(client_->publish("a", std::string(10, 'x'), 0, false), Error::SUCCESS);
    EXPECT_EQ(client_->publish("a", std::string(11, 'x'), 0, false), Error::NO_MEMORY);
    EXPECT_EQ(client_->publish("a", std::string(10, 'x'), 0, false), Error::SUCCESS);
    EXPECT_EQ(client_->publish("a", "", 0, false), Error::NO_MEMORY);
}

TEST_F(AClientWithLimits, DropsNothingForAPublicationThatIsNeverAccepted) {
    setLimits(QueueLimits::NO_LIMIT, 1000, Policy::DROP_OLDEST);
    ASSERT_EQ(client_->publish("a", "1", 0, false), Error::SUCCESS);
    EXPECT_EQ(client_->publish("a", std::string(1000, 'x'), 0, false), Error::NO_MEMORY);
    EXPECT_EQ(client_->publish("a/#", std::string(700, 'x'), 0, false), Error::INVALID_PARAMETER);
    connect();
    EXPECT_THAT(published(), ElementsAre("1"));
}

TEST_F(AClientWithLimits, SendsTheNewestOfEachTopicOnceInTheirOrder) {
    limitMessages(QueueLimits::NO_LIMIT, Policy::NEWEST_OF_EACH_TOPIC);
    constexpr int TOPICS = 50;
    constexpr int ROUNDS = 20;
    for (int i = 0; i < ROUNDS * TOPICS; ++i) {
        auto const topic = std::to_string(i * 7 % TOPICS);
        ASSERT_EQ(client_->publish(topic, std::to_string(i), i % 3, true), Error::SUCCESS);
    }
    connect();
    EXPECT_EQ(published(), numbers((ROUNDS - 1) * TOPICS, ROUNDS * TOPICS));
    EXPECT_EQ(client_->statistics().dropped.superseded, (ROUNDS - 1) * TOPICS);
}

/// With ten places the library gets five publications at a time; at each QoS.
class ABrokerThatDoesNotRead : public AClientWithLimits, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Qos, ABrokerThatDoesNotRead, testing::Values(0, 1, 2));

TEST_P(ABrokerThatDoesNotRead, GetsWhatThePolicyHasKept) {
    std::vector<Error> const allAccepted(20, Error::SUCCESS);
    auto tenAccepted = allAccepted;
    std::fill(tenAccepted.begin() + 10, tenAccepted.end(), Error::NO_MEMORY);
    for (auto const& [policy, results, sent] : {
             PolicyCase{Policy::REJECT_NEW, tenAccepted, numbers(5, 10)},
             PolicyCase{Policy::DROP_OLDEST, allAccepted, numbers(15, 20)},
             PolicyCase{Policy::NEWEST_OF_EACH_TOPIC, allAccepted, {"18", "19"}},
         }) {
        SCOPED_TRACE(static_cast<int>(policy));
        startAnew();
        limitMessages(10, policy);
        connectToABrokerThatDoesNotRead();
        EXPECT_EQ(publishAll(20, GetParam()), results);
        auto expected = numbers(0, 5);
        EXPECT_EQ(published(), expected);
        acknowledgeAll();
        expected.insert(expected.end(), sent.begin(), sent.end());
        EXPECT_EQ(published(), expected);
        EXPECT_EQ(client_->statistics().dropped.oldest, policy == Policy::DROP_OLDEST ? 10U : 0U);
    }
}

TEST_P(ABrokerThatDoesNotRead, GetsWhatIsWaitedForAfterAllThatIsQueued) {
    limitMessages(10, Policy::REJECT_NEW);
    connectToABrokerThatDoesNotRead();
    publishAll(8, GetParam());
    EXPECT_EQ(client_->publishWait("0", "8", GetParam(), false, 0), Error::TIMEOUT);
    EXPECT_EQ(published(), numbers(0, 9));
    EXPECT_EQ(client_->clear("0"), Error::SUCCESS);
    EXPECT_EQ(published().size(), 10U);
    EXPECT_EQ(publish(10), Error::NO_MEMORY);
    EXPECT_EQ(client_->clear("0"), Error::NO_MEMORY);
}

TEST_P(ABrokerThatDoesNotRead, CountsAfterItsEndForWhatTheLibraryStillHas) {
    limitMessages(10, Policy::REJECT_NEW);
    connectToABrokerThatDoesNotRead();
    publishAll(5, GetParam());
    script_->setConnack(std::nullopt);
    script_->loseConnection();
    ASSERT_TRUE(script_->waitForCalls(Operation::RECONNECT, 1));
    auto const results = publishAll(11, GetParam());
    // At QoS 0 the library drops with the connection what it has not sent.
    auto const accepted = std::count(results.begin(), results.end(), Error::SUCCESS);
    EXPECT_EQ(accepted, GetParam() == 0 ? 10 : 5);
    client_->giveUp();
    ASSERT_TRUE(states_.waitFor(conv::ComState::DISCONNECTED));
    limitMessages(11, Policy::REJECT_NEW);
    EXPECT_EQ(publish(11, GetParam()), Error::SUCCESS);
    EXPECT_EQ(publish(12, GetParam()), Error::NO_MEMORY);
}

TEST_F(AClientWithLimits, LosesItsLimitsWithTheOptions) {
    limitMessages(0, Policy::REJECT_NEW);
    EXPECT_EQ(publish(0), Error::NO_MEMORY);
    ASSERT_EQ(client_->setOptions({}), Error::SUCCESS);
    EXPECT_THAT(publishAll(20), testing::Each(Error::SUCCESS));
    limitMessages(21, Policy::REJECT_NEW); // what is queued counts
    EXPECT_EQ(publish(20), Error::SUCCESS);
    EXPECT_EQ(publish(21), Error::NO_MEMORY);
}

TEST_F(AClientWithLimits, LogsWhatItRejectsAndDropsWithoutThePayload) {
    limitMessages(1, Policy::REJECT_NEW);
    support::LogLines const log(mqtt::LogLevel::ERROR);
    ASSERT_EQ(client_->publish("plant", "SECRET", 0, false), Error::SUCCESS);
    ASSERT_EQ(client_->publish("hall", "SECRET", 0, false), Error::NO_MEMORY);
    limitMessages(1, Policy::DROP_OLDEST);
    ASSERT_EQ(client_->publish("hall", "", 0, false), Error::SUCCESS);
    EXPECT_THAT(
        log.copy(),
        ElementsAre(HasSubstr(": publication rejected at a limit of the queue: hall, 6 b"),
                    HasSubstr(": publication dropped at a limit of the queue: plant, 6 b")));
    EXPECT_THAT(log.copy(), testing::Each(testing::Not(HasSubstr("SECRET"))));
}

TEST_F(AClientWithLimits, RefusesPayloadsAboveTheMaximum) {
    mqtt::ConnectionOptions options;
    options.maxPayloadToSend = 3;
    ASSERT_EQ(client_->setOptions(options), Error::SUCCESS);
    for (bool const isConnected : {false, true}) {
        EXPECT_EQ(client_->publish("a", "123", 1, false), Error::SUCCESS);
        EXPECT_EQ(client_->publish("a", "1234", 1, false), Error::PAYLOAD_SIZE);
        EXPECT_EQ(client_->publishWait("a", "1234", 1, false, 0), Error::PAYLOAD_SIZE);
        EXPECT_EQ(client_->statistics().dropped.tooLarge, isConnected ? 4U : 2U);
        if (!isConnected) {
            connect();
        }
    }
    EXPECT_THAT(published(), ElementsAre("123", "123"));
}

TEST_F(AClientWithLimits, DropsMessagesAboveTheMaximum) {
    mqtt::ConnectionOptions options;
    options.maxPayloadToReceive = 3;
    ASSERT_EQ(client_->setOptions(options), Error::SUCCESS);
    support::LogLines const log(mqtt::LogLevel::ERROR);
    connect();
    ASSERT_EQ(client_->subscribe("a", &subscriber_, 0), Error::SUCCESS);
    script_->deliver("a", "1234");
    script_->deliver("a", "123");
    EXPECT_TRUE(subscriber_.waitForPayload("123"));
    EXPECT_EQ(subscriber_.payloads(), Strings{"123"});
    EXPECT_THAT(log.copy(),
                ElementsAre(HasSubstr(": message dropped because of its size: a, 4 b")));
    auto const statistics = client_->statistics();
    EXPECT_EQ(statistics.received, 1U);
    EXPECT_EQ(statistics.receivedBytes, 3U);
    EXPECT_EQ(statistics.receivedDropped, 1U);
    client_->release(&subscriber_);
}

TEST_F(AClientWithLimits, SleepsWhileDisconnectedIfItIsToldTo) {
    mqtt::ConnectionOptions options;
    options.sleepsWhileDisconnected = true;
    ASSERT_EQ(client_->setOptions(options), Error::SUCCESS);
    auto const isAsleep = [&] {
        constexpr std::chrono::milliseconds longerThanAnyStep{200};
        auto const before = script_->loops();
        return !mqtt::test::eventually([&] { return script_->loops() != before; },
                                       longerThanAnyStep);
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(mqtt::test::eventually(isAsleep));
        connect();
        EXPECT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    }
    EXPECT_TRUE(mqtt::test::eventually(isAsleep));
    client_.reset(); // returns
}

// Statistics

class AClientsStatistics : public AClientOnAScript {};

TEST_F(AClientsStatistics, CountWhatIsSentAndQueuedAndConnections) {
    queue({"1", "23"}, 1);
    EXPECT_EQ(client_->statistics().queued, 2U);
    connect();
    queue({"456"}, 0);
    auto const first = client_->statistics();
    EXPECT_EQ(first.queued, 0U);
    EXPECT_EQ(first.sent, 3U);
    EXPECT_EQ(first.sentBytes, 6U);
    EXPECT_EQ(first.connections, 1U);
    EXPECT_EQ(first.reconnections, 0U);
    reconnect();
    EXPECT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    connect();
    EXPECT_EQ(client_->statistics().connections, 3U);
    EXPECT_EQ(client_->statistics().reconnections, 1U);
}

TEST_F(AClientsStatistics, HaveTheEndOfTheLastNetworkStep) {
    connect();
    auto const begin = std::chrono::steady_clock::now();
    letTheStepEnd();
    auto const last = [&] { return client_->statistics().lastNetworkStep; };
    EXPECT_GE(last(), begin);
    script_->runInLoop([&](auto&) { // a subscriber that takes long
        auto const before = last();
        EXPECT_LE(before, std::chrono::steady_clock::now());
        std::this_thread::yield();
        EXPECT_EQ(last(), before);
    });
}

} // namespace
