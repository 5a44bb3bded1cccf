#include "client_on_a_script.hpp"

#include <future>

namespace {

using conv::ComState;
using conv::SecondsDuration;
using support::StandIn;
using Error = mqtt::MqttClient::Error;
using Operation = StandIn::Operation;

/// Enough for everything that does happen.
SecondsDuration const PATIENCE{30};

/// Without a connection the library would keep what it is given, or send it too early.
class ALibraryWithoutAConnection : public AClientOnAScript {
protected:
    void expectSilence() {
        auto const before = script_->calls().size();
        for (int qos : {0, 1, 2}) {
            EXPECT_EQ(client_->publish("a", "0", qos, true), Error::SUCCESS);
            EXPECT_EQ(client_->publishWait("a", "0", qos, true, PATIENCE), Error::SUCCESS);
        }
        EXPECT_EQ(client_->clear("a"), Error::NO_CONN);
        EXPECT_EQ(client_->subscribe("b", &subscriber_, 0), Error::SUCCESS);
        EXPECT_EQ(client_->unsubscribe("b", &subscriber_), Error::NO_CONN);
        EXPECT_EQ(script_->calls().size(), before);
    }
};

TEST_F(ALibraryWithoutAConnection, IsNotCalledBeforeTheFirstConnection) {
    expectSilence();
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledWhileConnecting) {
    beginToConnect();
    expectSilence();
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledAfterARefusal) {
    beginToConnect();
    script_->runInLoop([](auto& object) { object.on_connect(5); });
    expectSilence();
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledBetweenConsentAndTheEndOfTheStep) {
    beginToConnect();
    script_->runInLoop([&](auto& object) {
        object.on_connect(0);
        expectSilence();
    });
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledFromWithinTheNewsOfTheLoss) {
    connect();
    script_->setConnack(std::nullopt);
    script_->runInLoop([&](auto& object) {
        object.on_disconnect(7);
        expectSilence();
    });
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledForAListenerThatHearsOfTheLoss) {
    support::StateRecorder listener([&](ComState state) {
        if (state != ComState::CONNECTION_LOST) {
            return;
        }
        EXPECT_EQ(client_->publish("a", "0", 2, true), Error::SUCCESS);
        EXPECT_EQ(client_->clear("a"), Error::NO_CONN);
    });
    client_->registerListener(&listener);
    connect();
    script_->setConnack(std::nullopt);
    script_->loseConnection();
    EXPECT_TRUE(listener.waitFor(ComState::CONNECTION_LOST));
    client_->unregisterListener(&listener); // waits for the end of its call
    EXPECT_TRUE(script_->calls(Operation::PUBLISH).empty());
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledWhileReconnecting) {
    connect();
    script_->setConnack(std::nullopt);
    script_->loseConnection();
    ASSERT_TRUE(script_->waitForCalls(Operation::RECONNECT, 1));
    expectSilence();
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledAsSoonAsDisconnectingHasBegun) {
    connect();
    std::promise<void> begun;
    script_->post([&](auto&) { begun.get_future().wait(); });
    EXPECT_EQ(client_->disconnect(0), Error::TIMEOUT);
    expectSilence();
    begun.set_value();
    EXPECT_TRUE(states_.waitFor(ComState::DISCONNECTED));
}

TEST_F(ALibraryWithoutAConnection, IsNotCalledAfterADisconnection) {
    connect();
    ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    expectSilence();
}

TEST_F(AClientOnAScript, GivesUpTheSearchForItsBroker) {
    connect();
    script_->setHook(support::StandIn::Operation::RECONNECT, [](auto const&) { return 14; });
    script_->loseConnection();
    ASSERT_TRUE(states_.waitFor(conv::ComState::CONNECTION_LOST));
    EXPECT_EQ(client_->disconnect(30), mqtt::MqttClient::Error::NO_CONN);
    client_->giveUp();
    EXPECT_TRUE(states_.waitFor(conv::ComState::DISCONNECTED));
    connect();
}

TEST_F(AClientOnAScript, GivesUpItsConnectionToo) {
    connect();
    client_->giveUp();
    client_->pause();
    EXPECT_TRUE(states_.waitFor(conv::ComState::DISCONNECTED));
    client_->resume();
    connect();
}

} // namespace
