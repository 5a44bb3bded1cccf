#include "mqtt/client.hpp"

#include "common/awaited_call.hpp"
#include "mqtt/test/broker.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::Broker;
using mqtt::test::MessageRecorder;
using mqtt::test::StateRecorder;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 30;

// Members are destroyed in reverse order: the client before its listeners.
class AStateListener : public testing::Test {
protected:
    AStateListener() : first([this](ComState state) { hook(state); }) {}

    Error connect() { return client->connect("", -1, WAIT_SECONDS); }
    Error disconnect() { return client->disconnect(WAIT_SECONDS); }

    std::function<void(ComState)> hook = [](ComState) {};
    MessageRecorder messages;
    StateRecorder first;
    StateRecorder second;
    Broker broker;
    std::unique_ptr<MqttClient> client =
        mqtt::test::testClient(broker, {false, false, zym::common::Uuid::NIL});
};

TEST_F(AStateListener, SeesEveryChangeWithTheStateInPlace) {
    hook = [&](ComState state) { EXPECT_EQ(client->communicationState(), state); };
    client->registerListener(nullptr);
    client->registerListener(&first);
    client->registerListener(&first); // has no effect
    EXPECT_EQ(connect(), Error::SUCCESS);
    broker.kill();
    ASSERT_TRUE(first.waitFor(ComState::CONNECTION_LOST));
    broker.start();
    ASSERT_TRUE(first.waitFor(ComState::CONNECTED));
    EXPECT_EQ(disconnect(), Error::SUCCESS);
    client->unregisterListener(&first);
    client->unregisterListener(nullptr);
    EXPECT_EQ(connect(), Error::SUCCESS);
    EXPECT_THAT(first.history(),
                ElementsAre(ComState::CONNECTING, ComState::CONNECTED, ComState::CONNECTION_LOST,
                            ComState::CONNECTED, ComState::DISCONNECTED));
}

TEST_F(AStateListener, LeavesTheOthersInTheirOrderWhenItIsUnregistered) {
    std::vector<std::size_t> bySecond; // calls of the second before those of the third
    StateRecorder third([&](ComState) { bySecond.push_back(second.history().size()); });
    client->registerListener(&first);
    client->registerListener(&second);
    client->registerListener(&third);
    client->unregisterListener(&first);
    client->unregisterListener(&first); // unknown by now
    EXPECT_EQ(connect(), Error::SUCCESS);
    client->unregisterListener(&third);
    EXPECT_THAT(first.history(), IsEmpty());
    EXPECT_THAT(bySecond, ElementsAre(1, 2));
}

TEST_F(AStateListener, PublishesSubscribesAndUnsubscribesOnEveryChange) {
    hook = [&](ComState state) {
        auto const name = std::to_string(static_cast<int>(state));
        EXPECT_EQ(client->subscribe(name, &messages, 0), Error::SUCCESS);
        EXPECT_EQ(client->publish(name, name, 2, false), Error::SUCCESS);
        EXPECT_EQ(client->subscribe("other", &messages, 0), Error::SUCCESS);
        EXPECT_NE(client->unsubscribe("other", &messages), Error::NOT_FOUND);
    };
    client->registerListener(&first);
    ASSERT_EQ(connect(), Error::SUCCESS);
    // Before the broker dies, which loses what is in flight.
    EXPECT_TRUE(messages.waitForPayload("4"));
    EXPECT_TRUE(messages.waitForPayload("2"));
    broker.kill();
    ASSERT_TRUE(first.waitFor(ComState::CONNECTION_LOST));
    broker.start();
    EXPECT_TRUE(messages.waitForPayload("3"));
}

TEST_F(AStateListener, ChangesTheListenersOfTheNextChange) {
    StateRecorder third;
    StateRecorder added;
    hook = [&](ComState) {
        client->unregisterListener(&first);
        client->unregisterListener(&second);
        client->registerListener(&added);
    };
    for (auto* const listener : {&first, &second, &third}) {
        client->registerListener(listener);
    }
    ASSERT_EQ(connect(), Error::SUCCESS);
    client->unregisterListener(&third);
    client->unregisterListener(&added);
    EXPECT_THAT(first.history(), ElementsAre(ComState::CONNECTING));
    EXPECT_THAT(second.history(), ElementsAre(ComState::CONNECTING));
    EXPECT_THAT(third.history(), ElementsAre(ComState::CONNECTING, ComState::CONNECTED));
    EXPECT_THAT(added.history(), ElementsAre(ComState::CONNECTED));
}

TEST_F(AStateListener, CanNeitherConnectNorDisconnect) {
    std::vector<Error> results;
    hook = [&](ComState) {
        results.push_back(connect());
        results.push_back(disconnect());
    };
    client->registerListener(&first);
    ASSERT_EQ(connect(), Error::SUCCESS);
    hook = [](ComState) {};
    EXPECT_EQ(results.size(), 4U);
    EXPECT_THAT(results, Each(Error::CONNECTION_PENDING));
}

TEST_F(AStateListener, IsUnregisteredOnlyWhenItsCallIsOver) {
    AwaitedCall call;
    hook = [&](ComState state) {
        if (state == ComState::CONNECTED) {
            call.run();
        }
    };
    client->registerListener(&first);
    std::thread connecting([&] { EXPECT_EQ(connect(), Error::SUCCESS); });
    call.expectToBeAwaitedBy([&] { client->unregisterListener(&first); });
    connecting.join();
}

} // namespace
