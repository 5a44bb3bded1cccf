// What a real broker cannot be brought to do.

#include "support/recorder.hpp"
#include "support/stand_in/stand_in.hpp"
#include "support/test_client.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using conv::ComState;
using support::StandIn;
using testing::ElementsAre;
using testing::IsEmpty;
using Operation = support::StandIn::Operation;
using Error = mqtt::MqttClient::Error;

constexpr int CONN_LOST = 7;
constexpr auto MALFORMED_UTF8 = static_cast<Error>(18);

class ASubscribingClient : public testing::Test {
protected:
    using Strings = std::vector<std::string>;

    static support::ClientOptions disconnected() {
        support::ClientOptions result;
        result.connect = false;
        return result;
    }

    void connect() { ASSERT_EQ(client->connect("", -1, 30), Error::SUCCESS); }

    void loseConnection() {
        library->loseConnection();
        ASSERT_TRUE(support::eventually(
            [&] { return client->communicationState() == ComState::CONNECTION_LOST; }));
    }

    Strings topics(Operation operation) const {
        Strings result;
        for (auto const& call : library->calls(operation)) {
            result.push_back(call.topic);
        }
        return result;
    }

    bool isRegistered(std::string const& topic) {
        library->deliver(topic, "is it?");
        // Runs after that message was dispatched.
        library->runInLoop([](auto&) {});
        bool const found = recorder.count() != 0;
        recorder.clear();
        return found;
    }

    support::MessageRecorder recorder;
    std::unique_ptr<mqtt::MqttClient> client = support::testClient("host", 1, disconnected());
    std::shared_ptr<StandIn> library = StandIn::last();
};

TEST_F(ASubscribingClient, WithoutAConnectionDoesNotCallTheLibrary) {
    EXPECT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribe("a", &recorder), Error::NO_CONN);
    EXPECT_EQ(client->subscribe("b", &recorder, 0), Error::SUCCESS);
    client->release(&recorder);
    EXPECT_EQ(client->subscribe("c", &recorder, 0), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribeWait("c", &recorder, 30), Error::NO_CONN);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), IsEmpty());
}

TEST_F(ASubscribingClient, BetweenConnectionAndConsentDoesNotCallTheLibrary) {
    library->setConnack(std::nullopt);
    ASSERT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
    EXPECT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    EXPECT_EQ(client->subscribe("b", &recorder, 0), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribe("a", &recorder), Error::NO_CONN);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), IsEmpty());
}

TEST_F(ASubscribingClient, AfterALostConnectionDoesNotCallTheLibrary) {
    connect();
    loseConnection();
    EXPECT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    EXPECT_EQ(client->unsubscribe("a", &recorder), Error::NO_CONN);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE), IsEmpty());
}

TEST_F(ASubscribingClient, RefusesWhatTheBrokerWouldNotBearBeforeAnythingChanges) {
    auto const refuses = [&] {
        for (char const* const topic : {"", "/", "a/#/b", "a+"}) {
            EXPECT_EQ(client->subscribe(topic, &recorder, 0), Error::INVALID_PARAMETER) << topic;
        }
        EXPECT_EQ(client->subscribe("a/\xFF", &recorder, 0), MALFORMED_UTF8);
        EXPECT_EQ(client->subscribe(std::string("a\0b", 3), &recorder, 0), MALFORMED_UTF8);
        EXPECT_EQ(client->subscribe(std::string(65536, 'a'), &recorder, 0),
                  Error::INVALID_PARAMETER);
    };
    {
        SCOPED_TRACE("offline");
        refuses();
    }
    connect();
    {
        SCOPED_TRACE("online");
        refuses();
    }
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty());
}

TEST_F(ASubscribingClient, RegistersWhenTheConnectionIsFoundGone) {
    connect();
    for (int const result : {0, 4, CONN_LOST}) {
        auto const topic = "topic/" + std::to_string(result);
        library->answer(Operation::SUBSCRIBE, {result});
        EXPECT_EQ(client->subscribe(topic, &recorder, 0), Error::SUCCESS) << result;
        EXPECT_TRUE(isRegistered(topic)) << result;
    }
}

TEST_F(ASubscribingClient, DoesNotRegisterWhatTheLibraryRefuses) {
    connect();
    for (int const result : {1, 2, 3, 5, 6, 8, 9, 10, 11, 14, 18, 22}) {
        library->answer(Operation::SUBSCRIBE, {result});
        EXPECT_EQ(client->subscribe("a", &recorder, 0), static_cast<Error>(result));
        EXPECT_FALSE(isRegistered("a")) << result;
        EXPECT_EQ(client->unsubscribe("a", &recorder), Error::NOT_FOUND) << result;
    }
}

TEST_F(ASubscribingClient, KeepsAnEntryAsItIsWhenTheLibraryRefusesAnother) {
    connect();
    ASSERT_EQ(client->subscribe("a", &recorder, 1), Error::SUCCESS);
    library->answer(Operation::SUBSCRIBE, {1});
    EXPECT_EQ(client->subscribe("a", &recorder, 2), Error::NO_MEMORY);
    library->deliver("a", "x");
    library->runInLoop([](auto&) {});
    EXPECT_THAT(recorder.deliveries(), ElementsAre(support::Delivery{1, "a", "x"}));
}

TEST_F(ASubscribingClient, ForgetsAnEntryWhateverTheLibrarySaysToItsEnd) {
    connect();
    for (int const result : {1, 4, CONN_LOST, 14}) {
        ASSERT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
        library->answer(Operation::UNSUBSCRIBE, {result});
        EXPECT_EQ(client->unsubscribe("a", &recorder), static_cast<Error>(result));
        EXPECT_FALSE(isRegistered("a")) << result;
    }
}

TEST_F(ASubscribingClient, ReportsTheMessageIdOfAnUnsubscription) {
    connect();
    ASSERT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    int mid = -1;
    ASSERT_EQ(client->unsubscribe("a", &recorder, &mid), Error::SUCCESS);
    EXPECT_EQ(mid, library->calls(Operation::UNSUBSCRIBE).front().mid);
}

TEST_F(ASubscribingClient, WaitsForNothingThatTheLibraryDidNotTake) {
    connect();
    ASSERT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    library->answer(Operation::UNSUBSCRIBE, {CONN_LOST});
    EXPECT_EQ(client->unsubscribeWait("a", &recorder, conv::SecondsDuration::NO_TIMEOUT),
              Error::CONN_LOST);
}

TEST_F(ASubscribingClient, WaitsThoughTheLastOneAcknowledgedHadTheSameNumber) {
    connect();
    library->setAcknowledging(false);
    ASSERT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    // Numbers come again after all others.
    int const next = library->calls(Operation::SUBSCRIBE).back().mid + 1;
    library->runInLoop([next](auto& object) { object.on_unsubscribe(next); });
    EXPECT_EQ(client->unsubscribeWait("a", &recorder, 0), Error::TIMEOUT);
    EXPECT_EQ(library->calls(Operation::UNSUBSCRIBE).back().mid, next);
}

/// Message ids come again one day, that of the packet that once woke the worker too.
class AReusedMessageId : public ASubscribingClient {
protected:
    void expectItIsWaitedFor() {
        int const mid = library->calls(Operation::UNSUBSCRIBE).back().mid;
        library->setAcknowledging(true);
        ASSERT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
        library->setNextMid(mid);
        EXPECT_EQ(client->unsubscribeWait("a", &recorder, 30), Error::SUCCESS);
    }
};

TEST_F(AReusedMessageId, IsWaitedForWhenItsFirstUseWasNotAcknowledged) {
    connect();
    library->setAcknowledging(false);
    ASSERT_EQ(client->disconnect(30), Error::SUCCESS);
    connect();
    expectItIsWaitedFor();
}

TEST_F(AReusedMessageId, IsWaitedForOnTheSameConnection) {
    connect();
    library->answer(Operation::DISCONNECT, {1});
    ASSERT_EQ(client->disconnect(30), Error::NO_MEMORY);
    library->runInLoop([](auto&) {}); // so the first use is acknowledged
    expectItIsWaitedFor();
}

TEST_F(ASubscribingClient, StopsCompletingAConnectionThatIsLostMeanwhile) {
    for (char const* const topic : {"a", "b", "c"}) {
        ASSERT_EQ(client->subscribe(topic, &recorder, 0), Error::SUCCESS);
    }
    ASSERT_EQ(client->publish("queued", "x", 1, false), Error::SUCCESS);
    library->answer(Operation::SUBSCRIBE, {0, CONN_LOST});
    ASSERT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(library->waitForCalls(Operation::SUBSCRIBE, 2));
    library->runInLoop([](auto&) {}); // begins when that step has ended
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a", "b"));
    EXPECT_EQ(library->count(Operation::PUBLISH), 0U);
    EXPECT_EQ(client->communicationState(), ComState::CONNECTING);
    // Still offline: nothing goes past the library's back.
    EXPECT_EQ(client->subscribe("d", &recorder, 0), Error::SUCCESS);
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a", "b"));

    library->loseConnection();
    ASSERT_TRUE(support::becomesConnected(*client));
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a", "b", "a", "b", "c", "d"));
    EXPECT_EQ(library->count(Operation::PUBLISH), 1U);
}

TEST_F(ASubscribingClient, HasSubscribedEverythingWhenItsStateBecomesConnected) {
    for (char const* const topic : {"a", "b"}) {
        ASSERT_EQ(client->subscribe(topic, &recorder, 0), Error::SUCCESS);
    }
    Strings subscribed;
    support::StateRecorder listener([&](ComState state) {
        if (state == ComState::CONNECTED) {
            subscribed = topics(Operation::SUBSCRIBE);
        }
    });
    client->registerListener(&listener);
    connect();
    client->unregisterListener(&listener);
    EXPECT_THAT(subscribed, ElementsAre("a", "b"));
}

TEST_F(ASubscribingClient, CompletesAConnectionWhateverElseBecomesOfItsSubscriptions) {
    for (char const* const topic : {"a", "b", "c", "d"}) {
        ASSERT_EQ(client->subscribe(topic, &recorder, 0), Error::SUCCESS);
    }
    library->answer(Operation::SUBSCRIBE, {1, 3, 14, 4});
    connect();
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre("a", "b", "c", "d"));
}

TEST_F(ASubscribingClient, AcceptsAMessageWithoutPayload) {
    connect();
    ASSERT_EQ(client->subscribe("a", &recorder, 3), Error::SUCCESS);
    library->deliver("a", "");
    EXPECT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.deliveries(), ElementsAre(support::Delivery{3, "a", ""}));
}

TEST_F(ASubscribingClient, UnsubscribesEveryTopicWhenItIsDestroyed) {
    connect();
    for (char const* const topic : {"b", "a", "b"}) {
        ASSERT_EQ(client->subscribe(topic, &recorder, 0), Error::SUCCESS);
    }
    library->answer(Operation::UNSUBSCRIBE, {14});
    client.reset();
    auto ended = topics(Operation::UNSUBSCRIBE);
    ASSERT_GE(ended.size(), 2U);
    ended.resize(2); // a further one only wakes the worker
    EXPECT_THAT(ended, ElementsAre("a", "b")) << "whatever becomes of the first one";
    EXPECT_EQ(library->count(Operation::DISCONNECT), 0U);
}

TEST_F(ASubscribingClient, CallsNobodyAnyMoreWhileItIsDestroyed) {
    connect();
    library->setAcknowledging(false); // the worker's last step is to be the message's
    ASSERT_EQ(client->subscribe("+/b", &recorder, 0), Error::SUCCESS);
    // What wakes the worker for its end comes when the subscriptions are gone.
    library->setHook(Operation::UNSUBSCRIBE, [&](auto const& call) {
        if (call.topic == "$zym/wake") {
            library->deliver("a/b", "late");
        }
        return std::nullopt;
    });
    client.reset();
    EXPECT_EQ(recorder.count(), 0U);
}

} // namespace
