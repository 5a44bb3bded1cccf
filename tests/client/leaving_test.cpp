// A client that was told to disconnect, and what meets that on its way.

#include "client/client_on_a_script.hpp"

#include <gmock/gmock.h>

#include <future>

namespace {

using conv::ComState;
using conv::SecondsDuration;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = mqtt::MqttClient::Error;
using Operation = support::StandIn::Operation;

constexpr int CONN_LOST = 7;
constexpr int FAILED = 14;

class ALeavingClient : public AClientOnAScript {
protected:
    /// The packet is taken, and does not leave by itself.
    void leave() {
        script_->setHook(Operation::DISCONNECT, [](auto const&) { return std::optional<int>(0); });
        ASSERT_EQ(client_->disconnect(0), Error::TIMEOUT);
        script_->setHook(Operation::DISCONNECT, {});
    }

    void consent() {
        script_->runInLoop([](auto& object) { object.on_connect(0); });
        letTheStepEnd();
    }

    void connectAgain() {
        script_->setConnack(0);
        connect();
    }
};

class ALeavingClientAtEveryQos : public ALeavingClient, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Qos, ALeavingClientAtEveryQos, testing::Values(0, 1, 2));

TEST_P(ALeavingClientAtEveryQos, KeepsItsQueueWhenTheBrokersConsentCrossesItsEnd) {
    queue({"0"}, GetParam());
    beginToConnect();
    leave();
    consent();
    queue({"1"}, GetParam());
    EXPECT_THAT(published(), IsEmpty());
    script_->loseConnection(0);
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    EXPECT_THAT(states_.history(), ElementsAre(ComState::CONNECTING, ComState::DISCONNECTED));
    connectAgain();
    EXPECT_THAT(published(), ElementsAre("0", "1"));
}

TEST_F(ALeavingClient, ConnectsAnewAfterItHasGivenUpInTheMidstOfAnAttempt) {
    connect();
    script_->setHook(Operation::RECONNECT, [this](auto const&) {
        leave();
        client_->giveUp();
        return std::optional<int>(FAILED);
    });
    script_->loseConnection();
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    connectAgain();
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTED);
}

TEST_F(ALeavingClient, MayGiveUpAsSoonAsItIsToldThatItConnects) {
    support::StateRecorder quitter([this](ComState state) {
        if (state == ComState::CONNECTING) {
            client_->giveUp();
        }
    });
    client_->registerListener(&quitter);
    script_->answer(Operation::CONNECT, {FAILED});
    EXPECT_NE(client_->connect("", -1, 0), Error::SUCCESS);
    EXPECT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    client_->unregisterListener(&quitter);
}

TEST_F(ALeavingClient, KeepsItsQueueWhenItIsToldInTheMidstOfResubscribing) {
    queue({"0"}, 0);
    ASSERT_EQ(client_->subscribe("b", &subscriber_, 0), Error::SUCCESS);
    beginToConnect();
    script_->setHook(Operation::SUBSCRIBE, [this](auto const&) {
        leave();
        return std::optional<int>(0);
    });
    consent();
    script_->setHook(Operation::SUBSCRIBE, {});
    EXPECT_THAT(published(), IsEmpty());
    script_->loseConnection(0);
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    EXPECT_THAT(states_.history(), ElementsAre(ComState::CONNECTING, ComState::DISCONNECTED));
}

TEST_F(ALeavingClient, IsDisconnectedHoweverItsConnectionEnds) {
    connect();
    leave();
    script_->loseConnection(CONN_LOST);
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::RECONNECT), 0U);
    connect();
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTED);
}

TEST_F(ALeavingClient, DoesNotTryAgainWhenItsConnectionDoesNotComeUp) {
    connect();
    std::promise<void> told;
    auto const untilTold = told.get_future().share();
    script_->setHook(Operation::RECONNECT, [&](auto const&) {
        untilTold.wait();
        return std::optional<int>(FAILED);
    });
    script_->loseConnection(CONN_LOST);
    ASSERT_TRUE(script_->waitForCalls(Operation::RECONNECT, 1));
    leave();
    told.set_value();
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::RECONNECT), 1U);
}

TEST_F(ALeavingClient, DoesNotWaitForItsEndOnItsOwnWorker) {
    connect();
    script_->runInLoop([this](auto&) {
        EXPECT_EQ(client_->disconnect(SecondsDuration::NO_TIMEOUT), Error::TIMEOUT);
    });
    EXPECT_TRUE(states_.waitFor(ComState::DISCONNECTED));
}

} // namespace
