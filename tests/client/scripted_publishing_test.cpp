// Publishing, as the broker library sees it: what is sent, what is queued, and which answer of the
// library means what.

#include "client/client_on_a_script.hpp"

#include "mqtt/test/watched.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace {

using conv::ComState;
using support::StandIn;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = mqtt::MqttClient::Error;
using Operation = StandIn::Operation;
using Payloads = std::vector<std::string>;
using std::chrono_literals::operator""ms;

constexpr int NO_CONN = 4;
constexpr int CONN_LOST = 7;

/// Without a connection the library would keep what it is given, or send it too early.
class ALibraryWithoutAConnection : public AClientOnAScript {
protected:
    void expectNoCall() {
        auto const before = script_->calls().size();
        for (int const qos : {0, 1, 2}) {
            EXPECT_EQ(client_->publish("a", "0", qos, true), Error::SUCCESS);
            EXPECT_EQ(client_->publishWait("a", "0", qos, true, WAIT_SECONDS), Error::SUCCESS);
        }
        EXPECT_EQ(client_->clear("a"), Error::NO_CONN);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(client_->subscribe("b/" + std::to_string(i), &subscriber_, 0),
                      Error::SUCCESS);
        }
        EXPECT_EQ(client_->unsubscribe("b/0", &subscriber_), Error::NO_CONN);
        EXPECT_EQ(client_->unsubscribeWait("b/1", &subscriber_, WAIT_SECONDS), Error::NO_CONN);
        client_->release(&subscriber_);
        EXPECT_EQ(script_->calls().size(), before);
    }
};

TEST_F(ALibraryWithoutAConnection, IsNotCalledBeforeTheStepThatAcceptsAConnectionIsOver) {
    expectNoCall();
    beginToConnect();
    // The broker's answer is the low byte.
    for (int const refusal : {1, 2, 3, 4, 5, 127, 128, 255, 0x101, -1}) {
        script_->runInLoop([&](auto& object) { object.on_connect(refusal); });
        letTheStepEnd();
        expectNoCall();
        EXPECT_THAT(published(), IsEmpty()) << refusal;
    }
    EXPECT_THAT(states_.history(), ElementsAre(ComState::CONNECTING));
    script_->runInLoop([&](auto& object) {
        object.on_connect(0x100);
        expectNoCall();
    });
    EXPECT_TRUE(states_.waitFor(ComState::CONNECTED));
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledBetweenTheLossAndTheNextConnection) {
    mqtt::test::StateRecorder listener([&](ComState state) {
        if (state == ComState::CONNECTION_LOST) {
            expectNoCall();
        }
    });
    client_->registerListener(&listener);
    connect();
    script_->setConnack(std::nullopt);
    script_->loseConnection();
    ASSERT_TRUE(script_->waitForCalls(Operation::RECONNECT, 1));
    expectNoCall();
    client_->unregisterListener(&listener);
    EXPECT_EQ(listener.history().back(), ComState::CONNECTION_LOST);
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledAsSoonAsDisconnectingHasBegun) {
    connect();
    std::promise<void> checked;
    script_->post([&](auto&) { checked.get_future().wait(); });
    EXPECT_EQ(client_->disconnect(0), Error::TIMEOUT);
    expectNoCall();
    checked.set_value();
    EXPECT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    expectNoCall();
}

// The queue being sent

class AClientOnAScriptAtEveryQos : public AClientOnAScript,
                                   public testing::WithParamInterface<int> {
protected:
    /// What was handed to the library after the first so many calls.
    Payloads publishedFrom(std::size_t first) const {
        auto result = published();
        result.erase(result.begin(), result.begin() + static_cast<std::ptrdiff_t>(first));
        return result;
    }
};
INSTANTIATE_TEST_SUITE_P(Qos, AClientOnAScriptAtEveryQos, testing::Values(0, 1, 2));

TEST_P(AClientOnAScriptAtEveryQos, SendsItsQueueOnceOnTheWorkerBeforeTheStateIsConnected) {
    std::vector<ComState> seen;
    script_->setHook(Operation::PUBLISH, [&](auto const&) {
        seen.push_back(client_->communicationState());
        return std::optional<int>();
    });
    std::string const bytes("a\0b", 3);
    ASSERT_EQ(client_->publish("a/b", bytes, GetParam(), true), Error::SUCCESS);
    ASSERT_EQ(client_->clear("a/b"), Error::NO_CONN);
    connect();
    reconnect();
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].topic, "a/b");
    EXPECT_EQ(calls[0].payload, bytes);
    EXPECT_EQ(calls[0].qos, GetParam());
    EXPECT_TRUE(calls[0].retain);
    EXPECT_NE(calls[0].thread, std::this_thread::get_id());
    EXPECT_THAT(seen, ElementsAre(ComState::CONNECTING));
}

TEST_P(AClientOnAScriptAtEveryQos, StopsSendingItsQueueWhenThereIsNoConnection) {
    for (int const code : {CONN_LOST, NO_CONN}) {
        SCOPED_TRACE(code);
        auto const before = published().size();
        queue({"0", "1", "2"}, GetParam());
        script_->answer(Operation::PUBLISH, {0, code});
        EXPECT_EQ(client_->connect("", -1, 0), Error::TIMEOUT);
        ASSERT_TRUE(script_->waitForCalls(Operation::PUBLISH, before + 2));
        letTheStepEnd();
        EXPECT_EQ(client_->communicationState(), ComState::CONNECTING);
        queue({"3"}, GetParam());
        reconnect();
        // With NO_CONN the library keeps what is above QoS 0: it must not get it twice.
        bool const isKept = code == NO_CONN && GetParam() > 0;
        EXPECT_EQ(publishedFrom(before),
                  isKept ? (Payloads{"0", "1", "2", "3"}) : (Payloads{"0", "1", "1", "2", "3"}));
        ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    }
}

TEST_P(AClientOnAScriptAtEveryQos, DropsFromItsQueueWhatTheLibraryRefuses) {
    Payloads expected;
    for (int const code : {1, 3, 9, 14, 18}) {
        queue({"refused", "taken"}, GetParam());
        script_->answer(Operation::PUBLISH, {code});
        connect();
        ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
        expected.insert(expected.end(), {"refused", "taken"});
    }
    EXPECT_EQ(published(), expected);
}

TEST_F(AClientOnAScript, KeepsTheOrderOfWhatIsPublishedWhileItsQueueIsSent) {
    std::atomic<bool> stop{false};
    std::atomic<std::size_t> count{0};
    std::thread publisher([&] {
        while (!stop) {
            queue({std::to_string(count)}, 2);
            ++count;
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(mqtt::test::eventually([&] { return count >= 300; }));
    connect();
    stop = true;
    publisher.join();
    auto const payloads = published();
    ASSERT_EQ(payloads.size(), count);
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        ASSERT_EQ(payloads[i], std::to_string(i));
    }
}

// Publishing with a connection

TEST_P(AClientOnAScriptAtEveryQos, PublishesUnchangedOnTheCallersThread) {
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte += static_cast<char>(i);
    }
    connect();
    Payloads const payloads{everyByte, "", std::string(1'000'000, '\0')};
    for (auto const& payload : payloads) {
        EXPECT_EQ(client_->publish("a/b", payload, GetParam(), false), Error::SUCCESS);
    }
    EXPECT_TRUE(published() == payloads);
    for (auto const& call : script_->calls(Operation::PUBLISH)) {
        EXPECT_EQ(call.topic, "a/b");
        EXPECT_EQ(call.qos, GetParam());
        EXPECT_FALSE(call.retain);
        EXPECT_EQ(call.thread, std::this_thread::get_id());
    }
}

TEST_P(AClientOnAScriptAtEveryQos, PassesEveryOtherResultOnAndQueuesNothing) {
    connect();
    for (int const code : {1, 2, 3, 5, 6, 8, 9, 10, 11, 12, 13, 14, 15, 16, 18, 25, -1}) {
        script_->answer(Operation::PUBLISH, {code, code});
        EXPECT_EQ(client_->publish("a", "x", GetParam(), false), static_cast<Error>(code));
        EXPECT_EQ(client_->publishWait("a", "x", GetParam(), false, WAIT_SECONDS),
                  static_cast<Error>(code));
    }
    auto const before = script_->count(Operation::PUBLISH);
    reconnect();
    EXPECT_EQ(script_->count(Operation::PUBLISH), before);
}

TEST_P(AClientOnAScriptAtEveryQos, QueuesWhatTheLibraryDoesNotKeepWithoutAConnection) {
    connect();
    for (int const code : {CONN_LOST, NO_CONN}) {
        SCOPED_TRACE(code);
        auto const before = published().size();
        script_->answer(Operation::PUBLISH, {code, code});
        EXPECT_EQ(client_->publish("a", "0", GetParam(), false), Error::SUCCESS);
        EXPECT_EQ(client_->publishWait("a", "1", GetParam(), false, WAIT_SECONDS), Error::SUCCESS);
        reconnect();
        bool const isKept = code == NO_CONN && GetParam() > 0;
        EXPECT_EQ(publishedFrom(before),
                  isKept ? (Payloads{"0", "1"}) : (Payloads{"0", "1", "0", "1"}));
    }
}

TEST_F(AClientOnAScript, ClearsWithAnEmptyRetainedQos2PublicationThatIsNeverQueued) {
    connect();
    for (int const code : {0, 1, 3, CONN_LOST, 9, 14}) {
        script_->answer(Operation::PUBLISH, {code});
        EXPECT_EQ(client_->clear("a/b"), static_cast<Error>(code));
    }
    script_->answer(Operation::PUBLISH, {NO_CONN});
    EXPECT_EQ(client_->clear("a/b"), Error::SUCCESS) << "the library carries it out";
    reconnect();
    auto const calls = script_->calls(Operation::PUBLISH);
    ASSERT_EQ(calls.size(), 7U);
    EXPECT_EQ(calls[0].topic, "a/b");
    EXPECT_EQ(calls[0].payload, "");
    EXPECT_EQ(calls[0].qos, 2);
    EXPECT_TRUE(calls[0].retain);
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
    auto result = std::async(
        std::launch::async, [&] { return client_->publishWait("a", "0", 2, false, WAIT_SECONDS); });
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
        acknowledged->get_future().wait_for(200ms); // enough to come too early
        return std::optional<int>(0);
    });
    EXPECT_EQ(client_->publishWait("a", "0", 2, false, WAIT_SECONDS), Error::SUCCESS);
}

TEST_F(AWaitOnAScript, TimesOutThoughTheLastAcknowledgedPublicationHadTheSameNumber) {
    ASSERT_EQ(client_->publish("a", "0", 1, false), Error::SUCCESS);
    // Numbers come again after all others.
    int const next = script_->calls(Operation::PUBLISH).back().mid + 1;
    acknowledge(next);
    EXPECT_EQ(client_->publishWait("a", "1", 1, false, 0), Error::TIMEOUT);
    EXPECT_EQ(script_->calls(Operation::PUBLISH).back().mid, next);
}

} // namespace
