#include "client_on_a_script.hpp"

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using conv::ComState;
using conv::SecondsDuration;
using mqtt::MqttClient;
using support::StandIn;
using testing::ElementsAre;
using Error = MqttClient::Error;
using Operation = StandIn::Operation;
using Payloads = std::vector<std::string>;
using std::chrono_literals::operator""ms;

/// Enough for everything that does happen.
SecondsDuration const PATIENCE{30};

class AClientOnAScriptAtEveryQos : public AClientOnAScript,
                                   public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Qos, AClientOnAScriptAtEveryQos, testing::Values(0, 1, 2));

TEST_F(AClientOnAScript, TakesAcknowledgementsOutOfItsCallersHandsFirstOfAll) {
    auto const calls = script_->calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front().operation, Operation::THREADED_SET);
    EXPECT_EQ(calls.front().thread, std::this_thread::get_id());
}

TEST(TheLibrary, IsInitialisedOnceBeforeTheFirstClient) {
    for (int i = 0; i < 3; ++i) {
        MqttClient const client(support::uniqueId(), false, "", "host", 1883, false);
        EXPECT_EQ(StandIn::last()->initialisations(), 1) << i;
    }
}

TEST(AWorkerOnAScript, DoesNotStepBeforeTheLibraryKnowsOfIt) {
    for (int i = 0; i < 200; ++i) {
        MqttClient const client(support::uniqueId(), false, "", "host", 1883, false);
        auto const script = StandIn::last();
        ASSERT_TRUE(support::eventually([&] { return script->loops() > 0; }));
        EXPECT_EQ(script->calls(Operation::THREADED_SET).front().loopsBefore, 0U);
    }
}

// The queue being sent

TEST_P(AClientOnAScriptAtEveryQos, SendsItsQueueUnchangedAndOnTheWorkerBeforeItIsConnected) {
    std::vector<ComState> seen;
    script_->setHook(Operation::PUBLISH, [&](auto const&) {
        seen.push_back(client_->communicationState());
        return std::optional<int>();
    });
    std::string const bytes("a\0b", 3);
    ASSERT_EQ(client_->publish("a/b", bytes, GetParam(), true), Error::SUCCESS);
    connect();
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].topic, "a/b");
    EXPECT_EQ(calls[0].payload, bytes);
    EXPECT_EQ(calls[0].qos, GetParam());
    EXPECT_TRUE(calls[0].retain);
    EXPECT_NE(calls[0].thread, std::this_thread::get_id());
    EXPECT_THAT(seen, ElementsAre(ComState::CONNECTING));
}

TEST_F(AClientOnAScript, SendsItsQueueOnlyWhenTheCallbackHasReturned) {
    queue({"0"}, 2);
    ASSERT_EQ(client_->subscribe("b", &subscriber_, 0), Error::SUCCESS);
    beginToConnect();
    std::size_t within = 1;
    script_->runInLoop([&](auto& object) {
        object.on_connect(0);
        within = script_->count(Operation::PUBLISH) + script_->count(Operation::SUBSCRIBE);
    });
    EXPECT_EQ(within, 0U);
    EXPECT_TRUE(states_.waitFor(ComState::CONNECTED));
    EXPECT_THAT(published(), ElementsAre("0"));
}

TEST_P(AClientOnAScriptAtEveryQos, KeepsFirstInTheQueueWhatALostConnectionDidNotTake) {
    queue({"0", "1", "2"}, GetParam());
    script_->answer(Operation::PUBLISH, {0, 7});
    EXPECT_EQ(client_->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(script_->waitForCalls(Operation::PUBLISH, 2));
    letTheStepEnd();
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTING);
    queue({"3"}, GetParam());
    EXPECT_THAT(published(), ElementsAre("0", "1"));
    reconnect();
    EXPECT_THAT(published(), ElementsAre("0", "1", "1", "2", "3"));
    EXPECT_THAT(states_.history(),
                ElementsAre(ComState::CONNECTING, ComState::CONNECTION_LOST, ComState::CONNECTED));
}

TEST_P(AClientOnAScriptAtEveryQos, StopsSendingItsQueueWhenThereIsNoConnection) {
    queue({"0", "1", "2"}, GetParam());
    script_->answer(Operation::PUBLISH, {0, 4});
    EXPECT_EQ(client_->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(script_->waitForCalls(Operation::PUBLISH, 2));
    letTheStepEnd();
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTING);
    EXPECT_THAT(published(), ElementsAre("0", "1"));
    reconnect();
    // What is above QoS 0 the library has kept: it must not be given it twice.
    if (GetParam() == 0) {
        EXPECT_THAT(published(), ElementsAre("0", "1", "1", "2"));
    } else {
        EXPECT_THAT(published(), ElementsAre("0", "1", "2"));
    }
}

TEST_P(AClientOnAScriptAtEveryQos, DropsFromItsQueueWhatTheLibraryRefuses) {
    for (int const code : {1, 3, 9, 14, 18}) {
        queue({"refused", "taken"}, GetParam());
        script_->answer(Operation::PUBLISH, {code});
        connect();
        ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    }
    EXPECT_THAT(published(), ElementsAre("refused", "taken", "refused", "taken", "refused", "taken",
                                         "refused", "taken", "refused", "taken"));
}

TEST_F(AClientOnAScript, SendsNothingWhenTheConnectionIsLostInResubscribing) {
    ASSERT_EQ(client_->subscribe("b", &subscriber_, 0), Error::SUCCESS);
    ASSERT_EQ(client_->subscribe("c", &subscriber_, 0), Error::SUCCESS);
    queue({"0"}, 2);
    script_->answer(Operation::SUBSCRIBE, {7});
    EXPECT_EQ(client_->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(script_->waitForCalls(Operation::SUBSCRIBE, 1));
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 1U);
    EXPECT_THAT(published(), ElementsAre());
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTING);
    reconnect();
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 3U);
    EXPECT_THAT(published(), ElementsAre("0"));
}

TEST_F(AClientOnAScript, LetsNoPublicationOvertakeTheQueueBeingSent) {
    queue({"0", "1", "2"}, 2);
    std::future<Error> later;
    script_->setHook(Operation::PUBLISH, [&](auto const& call) {
        if (call.payload == "0") {
            later = std::async(std::launch::async,
                               [&] { return client_->publish("a", "later", 2, false); });
            later.wait_for(200ms); // time to go wrong in
        }
        return std::optional<int>();
    });
    connect();
    EXPECT_EQ(later.get(), Error::SUCCESS);
    EXPECT_THAT(published(), ElementsAre("0", "1", "2", "later"));
}

// Answers of the broker

TEST_F(AClientOnAScript, TakesTheLowByteOfTheBrokersAnswerForIt) {
    queue({"0"}, 2);
    beginToConnect();
    script_->runInLoop([](auto& object) { object.on_connect(0x100); });
    EXPECT_TRUE(states_.waitFor(ComState::CONNECTED));
    EXPECT_THAT(published(), ElementsAre("0"));
}

TEST_F(AClientOnAScript, DoesNothingWhenItIsRefused) {
    queue({"0"}, 2);
    ASSERT_EQ(client_->subscribe("b", &subscriber_, 0), Error::SUCCESS);
    beginToConnect();
    for (int const code : {1, 2, 3, 4, 5, 127, 128, 255, 0x101, -1}) {
        script_->runInLoop([&](auto& object) { object.on_connect(code); });
        letTheStepEnd();
    }
    EXPECT_THAT(states_.history(), ElementsAre(ComState::CONNECTING));
    EXPECT_THAT(published(), ElementsAre());
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
}

// Publishing with a connection

TEST_P(AClientOnAScriptAtEveryQos, PassesEveryOtherResultOnAndQueuesNothing) {
    connect();
    for (int const code : {1, 2, 3, 5, 6, 8, 9, 10, 11, 12, 13, 14, 15, 16, 18, 25, -1}) {
        script_->answer(Operation::PUBLISH, {code, code});
        EXPECT_EQ(client_->publish("a", "x", GetParam(), false), static_cast<Error>(code));
        EXPECT_EQ(client_->publishWait("a", "x", GetParam(), false, PATIENCE),
                  static_cast<Error>(code));
    }
    auto const before = script_->count(Operation::PUBLISH);
    reconnect();
    EXPECT_EQ(script_->count(Operation::PUBLISH), before);
}

TEST_P(AClientOnAScriptAtEveryQos, QueuesWhatALostConnectionDidNotTake) {
    connect();
    script_->answer(Operation::PUBLISH, {7, 7});
    EXPECT_EQ(client_->publish("a", "0", GetParam(), false), Error::SUCCESS);
    EXPECT_EQ(client_->publishWait("a", "1", GetParam(), false, PATIENCE), Error::SUCCESS);
    reconnect();
    EXPECT_THAT(published(), ElementsAre("0", "1", "0", "1"));
}

TEST_P(AClientOnAScriptAtEveryQos, DoesNotQueueWhatTheLibraryKeepsWithoutAConnection) {
    connect();
    script_->answer(Operation::PUBLISH, {4, 4});
    EXPECT_EQ(client_->publish("a", "0", GetParam(), false), Error::SUCCESS);
    EXPECT_EQ(client_->publishWait("a", "1", GetParam(), false, PATIENCE), Error::SUCCESS);
    reconnect();
    if (GetParam() == 0) {
        EXPECT_THAT(published(), ElementsAre("0", "1", "0", "1"));
    } else {
        EXPECT_THAT(published(), ElementsAre("0", "1"));
    }
}

TEST_F(AClientOnAScript, ClearsWithAnEmptyRetainedQos2Publication) {
    connect();
    EXPECT_EQ(client_->clear("a/b"), Error::SUCCESS);
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].topic, "a/b");
    EXPECT_EQ(calls[0].payload, "");
    EXPECT_EQ(calls[0].qos, 2);
    EXPECT_TRUE(calls[0].retain);
}

TEST_F(AClientOnAScript, TakesAClearForDoneThatTheLibraryKeepsWithoutAConnection) {
    connect();
    script_->answer(Operation::PUBLISH, {4});
    EXPECT_EQ(client_->clear("a"), Error::SUCCESS);
    reconnect();
    EXPECT_EQ(script_->count(Operation::PUBLISH), 1U) << "it would be carried out twice";
}

TEST_F(AClientOnAScript, PassesEveryFailureToClearOnAndQueuesNothing) {
    connect();
    for (int const code : {1, 3, 7, 9, 14}) {
        script_->answer(Operation::PUBLISH, {code});
        EXPECT_EQ(client_->clear("a"), static_cast<Error>(code));
    }
    reconnect();
    EXPECT_EQ(script_->count(Operation::PUBLISH), 5U);
}

// Waiting

class AWaitOnAScript : public AClientOnAScript {
protected:
    AWaitOnAScript() {
        connect();
        script_->setAcknowledging(false);
    }

    void acknowledge(int mid) {
        script_->runInLoop([mid](auto& object) { object.on_publish(mid); });
    }
};

TEST_F(AWaitOnAScript, EndsWithItsOwnAcknowledgementOnly) {
    auto result = std::async(std::launch::async,
                             [&] { return client_->publishWait("a", "0", 2, false, PATIENCE); });
    ASSERT_TRUE(script_->waitForCalls(Operation::PUBLISH, 1));
    int const mid = script_->calls(Operation::PUBLISH).front().mid;
    for (int const other : {0, mid - 1, mid + 1, mid + 65536}) {
        acknowledge(other);
        EXPECT_EQ(result.wait_for(20ms), std::future_status::timeout) << other;
    }
    acknowledge(mid);
    EXPECT_EQ(result.get(), Error::SUCCESS);
}

TEST_F(AWaitOnAScript, EndsThoughTheAcknowledgementComesBeforeTheCallReturns) {
    script_->setHook(Operation::PUBLISH, [&](auto const& call) {
        auto const acknowledged = std::make_shared<std::promise<void>>();
        script_->post([acknowledged, mid = call.mid](auto& object) {
            object.on_publish(mid);
            acknowledged->set_value();
        });
        acknowledged->get_future().wait_for(200ms); // time to come too early in
        return std::optional<int>(0);
    });
    EXPECT_EQ(client_->publishWait("a", "0", 2, false, PATIENCE), Error::SUCCESS);
}

TEST_F(AWaitOnAScript, TimesOutThoughAnEarlierPublicationWasAcknowledged) {
    ASSERT_EQ(client_->publish("a", "0", 1, false), Error::SUCCESS);
    acknowledge(script_->calls(Operation::PUBLISH).back().mid);
    EXPECT_EQ(client_->publishWait("a", "1", 1, false, 1), Error::TIMEOUT);
}

TEST_F(AWaitOnAScript, TimesOutThoughTheLastOneAcknowledgedHadTheSameNumber) {
    ASSERT_EQ(client_->publish("a", "0", 1, false), Error::SUCCESS);
    // Numbers come again after all others.
    int const next = script_->calls(Operation::PUBLISH).back().mid + 1;
    acknowledge(next);
    EXPECT_EQ(client_->publishWait("a", "1", 1, false, 0), Error::TIMEOUT);
    EXPECT_EQ(script_->calls(Operation::PUBLISH).back().mid, next);
}

TEST_F(AWaitOnAScript, TimesOutAtOnceWithoutTimeButHasPublished) {
    EXPECT_EQ(client_->publishWait("a", "0", 2, false, 0), Error::TIMEOUT);
    EXPECT_THAT(published(), ElementsAre("0"));
}

} // namespace
