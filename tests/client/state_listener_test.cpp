#include "client/client_on_a_script.hpp"
#include "common/awaited_call.hpp"

#include <gmock/gmock.h>

#include <functional>
#include <thread>

namespace {

using conv::ComState;
using mqtt::test::StateRecorder;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = mqtt::MqttClient::Error;

class AStateListener : public AClientOnAScript {
protected:
    ~AStateListener() override { client_.reset(); } // before its listeners

    std::function<void(ComState)> hook_ = [](ComState) {};
    StateRecorder first_{[this](ComState state) { hook_(state); }};
    StateRecorder second_;
};

TEST_F(AStateListener, SeesEveryChangeWithTheStateInPlace) {
    hook_ = [this](ComState state) { EXPECT_EQ(client_->communicationState(), state); };
    client_->registerListener(nullptr);
    client_->registerListener(&first_);
    client_->registerListener(&first_); // has no effect
    connect();
    reconnect();
    EXPECT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    client_->unregisterListener(&first_);
    client_->unregisterListener(nullptr);
    connect();
    EXPECT_THAT(first_.history(),
                ElementsAre(ComState::CONNECTING, ComState::CONNECTED, ComState::CONNECTION_LOST,
                            ComState::CONNECTED, ComState::DISCONNECTED));
}

TEST_F(AStateListener, LeavesTheOthersInTheirOrderWhenItIsUnregistered) {
    std::vector<std::size_t> bySecond; // calls of the second before those of the third
    StateRecorder third([&](ComState) { bySecond.push_back(second_.history().size()); });
    client_->registerListener(&first_);
    client_->registerListener(&second_);
    client_->registerListener(&third);
    client_->unregisterListener(&first_);
    client_->unregisterListener(&first_); // unknown by now
    connect();
    client_->unregisterListener(&third);
    EXPECT_THAT(first_.history(), IsEmpty());
    EXPECT_THAT(bySecond, ElementsAre(1, 2));
}

TEST_F(AStateListener, PublishesSubscribesAndUnsubscribesOnEveryChange) {
    hook_ = [this](ComState state) {
        auto const name = std::to_string(static_cast<int>(state));
        EXPECT_EQ(client_->publish(name, name, 2, false), Error::SUCCESS);
        EXPECT_EQ(client_->subscribe(name, &subscriber_, 0), Error::SUCCESS);
        EXPECT_NE(client_->unsubscribe(name, &subscriber_), Error::NOT_FOUND);
    };
    client_->registerListener(&first_);
    connect();
    reconnect();
    client_->unregisterListener(&first_);
    EXPECT_THAT(published(), ElementsAre("4", "2", "3", "2"));
}

TEST_F(AStateListener, ChangesTheListenersOfTheNextChange) {
    StateRecorder third;
    StateRecorder added;
    hook_ = [&](ComState) {
        client_->unregisterListener(&first_);
        client_->unregisterListener(&second_);
        client_->registerListener(&added);
    };
    for (auto* const listener : {&first_, &second_, &third}) {
        client_->registerListener(listener);
    }
    connect();
    client_->unregisterListener(&third);
    client_->unregisterListener(&added);
    EXPECT_THAT(first_.history(), ElementsAre(ComState::CONNECTING));
    EXPECT_THAT(second_.history(), ElementsAre(ComState::CONNECTING));
    EXPECT_THAT(third.history(), ElementsAre(ComState::CONNECTING, ComState::CONNECTED));
    EXPECT_THAT(added.history(), ElementsAre(ComState::CONNECTED));
}

TEST_F(AStateListener, CanNeitherConnectNorDisconnect) {
    std::vector<Error> results;
    hook_ = [&](ComState) {
        results.push_back(client_->connect("", -1, WAIT_SECONDS));
        results.push_back(client_->disconnect(WAIT_SECONDS));
    };
    client_->registerListener(&first_);
    connect();
    hook_ = [](ComState) {};
    EXPECT_EQ(results.size(), 4U);
    EXPECT_THAT(results, Each(Error::CONNECTION_PENDING));
}

TEST_F(AStateListener, IsUnregisteredOnlyWhenItsCallIsOver) {
    AwaitedCall call;
    hook_ = [&](ComState state) {
        if (state == ComState::CONNECTED) {
            call.run();
        }
    };
    client_->registerListener(&first_);
    std::thread connecting([&] { connect(); });
    call.expectToBeAwaitedBy([&] { client_->unregisterListener(&first_); });
    connecting.join();
}

} // namespace
