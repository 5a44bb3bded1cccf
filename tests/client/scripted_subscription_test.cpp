// Subscribing, as the broker library sees it, and which answer of the library means what.

#include "client/client_on_a_script.hpp"
#include "support/log_lines.hpp"

#include <gmock/gmock.h>

namespace {

using conv::ComState;
using conv::SecondsDuration;
using mqtt::Topic;
using support::StandIn;
using testing::ElementsAre;
using testing::EndsWith;
using Strings = std::vector<std::string>;
using Operation = StandIn::Operation;
using Error = mqtt::MqttClient::Error;

constexpr int NO_CONN = 4;
constexpr int CONN_LOST = 7;

class ASubscribingClient : public AClientOnAScript {
protected:
    void subscribe(Strings const& topics) {
        for (auto const& topic : topics) {
            ASSERT_EQ(client_->subscribe(topic, &subscriber_, 0), Error::SUCCESS);
        }
    }

    bool isRegistered(std::string const& topic) {
        script_->deliver(topic, "x");
        letTheStepEnd();
        bool const isCalled = subscriber_.count() != 0;
        subscriber_.clear();
        return isCalled;
    }
};

TEST_F(ASubscribingClient, RegistersWhenTheConnectionIsFoundLost) {
    connect();
    for (int const result : {0, NO_CONN, CONN_LOST}) {
        auto const topic = "topic/" + std::to_string(result);
        script_->answer(Operation::SUBSCRIBE, {result});
        EXPECT_EQ(client_->subscribe(topic, &subscriber_, 0), Error::SUCCESS) << result;
        EXPECT_TRUE(isRegistered(topic)) << result;
    }
}

TEST_F(ASubscribingClient, DoesNotRegisterWhatTheLibraryRefuses) {
    connect();
    for (int const result : {1, 2, 3, 5, 6, 8, 9, 10, 11, 14, 18, 22}) {
        script_->answer(Operation::SUBSCRIBE, {result});
        EXPECT_EQ(client_->subscribe("a", &subscriber_, 0), static_cast<Error>(result));
        EXPECT_FALSE(isRegistered("a")) << result;
        EXPECT_EQ(client_->unsubscribe("a", &subscriber_), Error::NOT_FOUND) << result;
    }
    ASSERT_EQ(client_->subscribe("a", &subscriber_, 1), Error::SUCCESS);
    script_->answer(Operation::SUBSCRIBE, {1});
    EXPECT_EQ(client_->subscribe("a", &subscriber_, 2), Error::NO_MEMORY);
    script_->deliver("a", "x");
    letTheStepEnd();
    EXPECT_THAT(subscriber_.deliveries(), ElementsAre(mqtt::test::Delivery{1, "a", "x"}))
        << "the first registration stays";
}

TEST_F(ASubscribingClient, LogsAndCountsWhatTheBrokerRefuses) {
    int const accepted = 0;
    int const refused = 128;
    auto const answerLast = [this](int count, int const* granted) {
        int const mid = script_->calls(Operation::SUBSCRIBE).back().mid;
        script_->runInLoop([=](auto& object) { object.on_subscribe(mid, count, granted); });
    };
    connect();
    subscribe({"early"});
    support::LogLines const log(mqtt::LogLevel::ERROR);
    answerLast(1, &refused);
    subscribe({"good"});
    answerLast(1, &accepted);
    subscribe({"bad"});
    answerLast(0, nullptr);
    subscribe({"bad"});
    answerLast(1, &refused);
    answerLast(1, &refused);
    auto const unknown = EndsWith(": subscription refused by the broker: of an unknown topic");
    EXPECT_THAT(
        log.copy(),
        ElementsAre(unknown, EndsWith(": subscription refused by the broker: bad"), unknown));
    EXPECT_EQ(client_->statistics().subscriptionsRefused, 3U);
    EXPECT_TRUE(isRegistered("bad"));
}

TEST_F(ASubscribingClient, RemovesAnEntryWhateverTheLibraryAnswers) {
    connect();
    for (int const result : {0, 1, NO_CONN, CONN_LOST, 14}) {
        subscribe({"a"});
        script_->answer(Operation::UNSUBSCRIBE, {result});
        EXPECT_EQ(client_->unsubscribe("a", &subscriber_), static_cast<Error>(result));
        EXPECT_FALSE(isRegistered("a")) << result;
    }
    subscribe({"a"});
    int mid = -1;
    ASSERT_EQ(client_->unsubscribe("a", &subscriber_, &mid), Error::SUCCESS);
    EXPECT_EQ(mid, script_->calls(Operation::UNSUBSCRIBE).back().mid);
}

// Waiting for an unsubscription

TEST_F(ASubscribingClient, WaitsForTheAcknowledgementOfItsUnsubscription) {
    connect();
    for (auto const limit : {SecondsDuration(WAIT_SECONDS), SecondsDuration::NO_TIMEOUT}) {
        subscribe({"a"});
        EXPECT_EQ(client_->unsubscribeWait("a", &subscriber_, limit), Error::SUCCESS);
        EXPECT_EQ(client_->unsubscribeWait("a", &subscriber_, limit), Error::NOT_FOUND);
    }
    subscribe({"a"});
    script_->answer(Operation::UNSUBSCRIBE, {CONN_LOST});
    EXPECT_EQ(client_->unsubscribeWait("a", &subscriber_, SecondsDuration::NO_TIMEOUT),
              Error::CONN_LOST);
    script_->setAcknowledging(false);
    for (unsigned const seconds : {0U, 1U}) {
        subscribe({"a"});
        EXPECT_EQ(client_->unsubscribeWait("a", &subscriber_, seconds), Error::TIMEOUT);
        EXPECT_EQ(client_->unsubscribe("a", &subscriber_), Error::NOT_FOUND);
    }
    EXPECT_EQ(topics(Operation::UNSUBSCRIBE), Strings(5, "a"));
}

TEST_F(ASubscribingClient, UnsubscribesForTheLastSubscriberOfExactlyThatTopic) {
    mqtt::test::MessageRecorder other;
    auto const unsubscribeWait = [&](Topic const& topic, auto& subscriber) {
        return client_->unsubscribeWait(topic, &subscriber, SecondsDuration::NO_TIMEOUT);
    };
    connect();
    subscribe({"a"});
    EXPECT_EQ(unsubscribeWait("b", subscriber_), Error::NOT_FOUND);
    EXPECT_EQ(unsubscribeWait("+", subscriber_), Error::NOT_FOUND) << "a pattern finds itself only";
    EXPECT_EQ(unsubscribeWait("a", other), Error::NOT_FOUND);
    ASSERT_EQ(client_->subscribe("a", &other, 0), Error::SUCCESS);
    EXPECT_EQ(unsubscribeWait("a", other), Error::NOT_FOUND) << "another subscriber is left";
    EXPECT_TRUE(isRegistered("a"));
    EXPECT_EQ(script_->count(Operation::UNSUBSCRIBE), 0U);
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    EXPECT_EQ(unsubscribeWait("a", subscriber_), Error::NO_CONN);
    EXPECT_EQ(unsubscribeWait("a", subscriber_), Error::NOT_FOUND);
}

TEST_F(ASubscribingClient, WaitsThoughTheLastAcknowledgedUnsubscriptionHadTheSameNumber) {
    connect();
    script_->setAcknowledging(false);
    subscribe({"a"});
    // Numbers come again after all others.
    int const next = script_->calls(Operation::SUBSCRIBE).back().mid + 1;
    script_->runInLoop([next](auto& object) { object.on_unsubscribe(next); });
    EXPECT_EQ(client_->unsubscribeWait("a", &subscriber_, 0), Error::TIMEOUT);
    EXPECT_EQ(script_->calls(Operation::UNSUBSCRIBE).back().mid, next);
}

TEST_F(ASubscribingClient, WaitsThoughTheUnsubscriptionThatWokeTheWorkerHadTheSameNumber) {
    auto const expectToBeWaitedFor = [this] {
        int const mid = script_->calls(Operation::UNSUBSCRIBE).back().mid;
        script_->setAcknowledging(true);
        subscribe({"a"});
        script_->setNextMid(mid);
        EXPECT_EQ(client_->unsubscribeWait("a", &subscriber_, WAIT_SECONDS), Error::SUCCESS);
    };
    connect();
    script_->answer(Operation::DISCONNECT, {1});
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::NO_MEMORY);
    letTheStepEnd(); // so the first use is acknowledged
    expectToBeWaitedFor();
    script_->setAcknowledging(false);
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    connect();
    expectToBeWaitedFor();
}

// Completing a connection

TEST_F(ASubscribingClient, SubscribesToEachTopicOnceInByteOrderAtQosZeroWithEveryConnection) {
    connect();
    subscribe({"b", "a/+", "a", "a/#", "b", "B", "gone", "released"});
    Strings expected{"b", "a/+", "a", "a/#", "b", "B", "gone", "released"};
    mqtt::test::MessageRecorder released;
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(client_->subscribe("released", &released, 0), Error::SUCCESS);
    client_->unsubscribe("gone", &subscriber_);
    client_->unsubscribe("released", &subscriber_);
    client_->release(&released);
    connect();
    script_->answer(Operation::SUBSCRIBE, {1, 3, 14, NO_CONN}); // does not matter
    reconnect();
    for (int i = 0; i < 2; ++i) {
        expected.insert(expected.end(), {"B", "a", "a/#", "a/+", "b"});
    }
    EXPECT_EQ(topics(Operation::SUBSCRIBE), expected);
    for (auto const& call : script_->calls(Operation::SUBSCRIBE)) {
        EXPECT_EQ(call.qos, 0);
    }
}

TEST_F(ASubscribingClient, SubscribesThenSendsItsQueueAndThenCallsItsListener) {
    mqtt::test::StateRecorder listener([&](ComState state) {
        if (state == ComState::CONNECTED) {
            EXPECT_EQ(client_->publish("listener", "", 0, false), Error::SUCCESS);
        }
    });
    client_->registerListener(&listener);
    subscribe({"c", "b"});
    queue({"queued"}, 1);
    connect();
    client_->unregisterListener(&listener);
    Strings order;
    for (auto const& call : script_->calls()) {
        order.push_back(call.topic);
    }
    EXPECT_THAT(order, ElementsAre("", "host", "b", "c", "a", "listener"))
        << "the calls at the beginning have no topic, and the host";
}

TEST_F(ASubscribingClient, StopsCompletingAConnectionThatIsLostMeanwhile) {
    subscribe({"a", "b", "c"});
    queue({"queued"}, 1);
    script_->answer(Operation::SUBSCRIBE, {0, CONN_LOST});
    ASSERT_EQ(client_->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(script_->waitForCalls(Operation::SUBSCRIBE, 2));
    letTheStepEnd();
    subscribe({"d"}); // only registers it
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a", "b"));
    EXPECT_EQ(script_->count(Operation::PUBLISH), 0U);
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTING);

    reconnect();
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a", "b", "a", "b", "c", "d"));
    EXPECT_EQ(script_->count(Operation::PUBLISH), 1U);
}

// The end of the client

TEST_F(ASubscribingClient, CallsNoSubscriberWhileItIsDestroyed) {
    connect();
    script_->setAcknowledging(false); // so that the worker's last step is the message's
    subscribe({"+/b"});
    // The packet that wakes the worker for its end comes when the subscriptions are removed.
    script_->setHook(Operation::UNSUBSCRIBE, [&](auto const& call) {
        if (call.topic == "$zym/wake") {
            script_->deliver("a/b", "late");
        }
        return std::nullopt;
    });
    client_.reset();
    EXPECT_EQ(subscriber_.count(), 0U);
}

} // namespace
