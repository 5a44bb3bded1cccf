#include "requestreply/blocking_thread.hpp"
#include "services/cleaner_recorder.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/scripted_server.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>

namespace {

using mqtt::TopicCleaner;
using std::chrono::milliseconds;
using support::RawPeer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Type = support::PacketType;

class Cleaning : public testing::Test {
protected:
    static support::BrokerOptions quick() {
        support::BrokerOptions options;
        options.nodelay = true;
        return options;
    }

    std::unique_ptr<TopicCleaner> makeCleaner() {
        return std::make_unique<TopicCleaner>(&recorder, support::uniqueId(), broker.host(),
                                              broker.port());
    }

    void retain(std::string const& topic) {
        RawPeer(broker).publish(topic, "payload of " + topic, 1, true);
    }

    /// The topics of what stands on the broker now.
    Strings retained() {
        RawPeer peer(broker);
        peer.subscribe("#");
        peer.publish("last", "", 1);
        EXPECT_TRUE(peer.waitFor([](auto const& all) {
            return std::any_of(all.begin(), all.end(),
                               [](auto const& message) { return message.topic == "last"; });
        }));
        Strings topics;
        for (auto const& message : peer.messages()) {
            if (message.retain) {
                topics.push_back(message.topic);
            }
        }
        return topics;
    }

    bool becomesRetained(Strings const& topics) {
        return support::eventually([&] { return retained() == topics; });
    }

    support::Broker broker{quick()};
    CleanerRecorder recorder;
    std::unique_ptr<TopicCleaner> cleaner = makeCleaner();
};

TEST_F(Cleaning, ErasesWhatStandsBelowAPattern) {
    for (auto const* const topic : {"a/x", "a/y", "b"}) {
        retain(topic);
    }
    RawPeer witness(broker);
    witness.subscribe("#");
    EXPECT_TRUE(witness.waitForMessages(3));
    witness.clearMessages();
    cleaner->clean("a/#", AN_HOUR);
    EXPECT_TRUE(witness.waitForMessages(2));
    EXPECT_TRUE(becomesRetained({"b"}));
    Strings erased;
    for (auto const& message : witness.messages()) {
        EXPECT_EQ(message.payload, "");
        if (message.topic != "last") {
            erased.push_back(message.topic);
        }
    }
    EXPECT_THAT(erased, UnorderedElementsAre("a/x", "a/y"));
}

TEST_F(Cleaning, PublishesNothingWhereNothingStands) {
    RawPeer witness(broker);
    witness.subscribe("#");
    for (std::size_t round = 1; round <= 2; ++round) {
        cleaner->clean("nothing/here", milliseconds(0));
        EXPECT_TRUE(cleaner->waitAllTasks(support::DEADLINE));
        EXPECT_THAT(recorder.told(), SizeIs(2 * round));
    }
    EXPECT_THAT(recorder.told(), ElementsAre("nothing/here", ALL, "nothing/here", ALL));
    EXPECT_THAT(witness.messages(), IsEmpty());
}

TEST_F(Cleaning, ErasesAThousandTopicsBelowOnePattern) {
    RawPeer peer(broker);
    for (int i = 0; i < 1000; ++i) {
        peer.post("many/" + std::to_string(i), "payload", 1, true);
    }
    peer.waitForAcknowledgements();
    cleaner->clean("many/#", AN_HOUR);
    EXPECT_TRUE(becomesRetained({}));
    EXPECT_THAT(recorder.told(), IsEmpty());
}

TEST_F(Cleaning, ErasesWhereTopicsAndPatternsOverlap) {
    for (auto const* const topic : {"a/x", "a/y", "a/b/c"}) {
        retain(topic);
    }
    for (auto const* const topic : {"a/x", "a/+", "a/#", "+/x", "#"}) {
        cleaner->clean(topic, AN_HOUR);
    }
    EXPECT_TRUE(becomesRetained({}));
}

TEST_F(Cleaning, ErasesWhatIsPublishedMeanwhile) {
    cleaner->clean("a/#", AN_HOUR);
    retain("a/late");
    EXPECT_TRUE(becomesRetained({}));
}

TEST_F(Cleaning, EndsRequestsInTheirOwnTime) {
    for (auto const* const topic : {"a", "", "b/#/c", "c/#"}) {
        cleaner->clean(topic, milliseconds(topic[0] == 'a' ? 1 : 0));
    }
    cleaner->clean("lasting", AN_HOUR);
    EXPECT_TRUE(recorder.waitForCount(4));
    EXPECT_FALSE(cleaner->waitAllTasks(A_WHILE));
    EXPECT_THAT(recorder.told(), UnorderedElementsAre("a", "", "b/#/c", "c/#"));
}

TEST_F(Cleaning, BeginsWhenTheBrokerComesUp) {
    broker.stop();
    cleaner = makeCleaner();
    cleaner->clean("a/#", AN_HOUR);
    broker.start();
    retain("a/x");
    EXPECT_TRUE(becomesRetained({}));
}

TEST_F(Cleaning, GoesOnWhenTheBrokerRestarts) {
    cleaner->clean("a/#", AN_HOUR);
    retain("a/early");
    EXPECT_TRUE(becomesRetained({}));
    broker.stop();
    broker.start();
    retain("a/late");
    EXPECT_TRUE(becomesRetained({}));
}

TEST_F(Cleaning, EndsRequestsWhileTheBrokerIsAway) {
    cleaner->clean("a", milliseconds(0));
    broker.stop();
    cleaner->clean("b", milliseconds(0));
    EXPECT_TRUE(cleaner->waitAllTasks(support::DEADLINE));
    EXPECT_THAT(recorder.told(), ElementsAre("a", "b", ALL));
}

TEST_F(Cleaning, EndsWithTheConnection) {
    cleaner->clean("a", AN_HOUR);
    cleaner->terminate();
    EXPECT_TRUE(support::eventually(
        [&] { return broker.log().find("Received DISCONNECT") != std::string::npos; }));
    retain("a");
    EXPECT_THAT(retained(), ElementsAre("a"));
    EXPECT_THAT(recorder.told(), IsEmpty());
}

class CleaningOnASlowBroker : public testing::Test {
protected:
    CleaningOnASlowBroker() {
        server.hold(Type::UNSUBSCRIBE);
        cleaner->clean("a", milliseconds(0));
        EXPECT_TRUE(server.waitForPackets(Type::UNSUBSCRIBE, 1));
    }
    ~CleaningOnASlowBroker() override { server.release(); }

    support::ScriptedServer server;
    CleanerRecorder recorder;
    std::unique_ptr<TopicCleaner> cleaner = std::make_unique<TopicCleaner>(
        &recorder, support::uniqueId(), server.host(), server.port());
};

TEST_F(CleaningOnASlowBroker, EndedWhileARequestEndsSaysNothingMore) {
    BlockingThread end([&] { cleaner->terminate(); });
    ASSERT_TRUE(end.isBlocked());
    server.release();
    end.join();
    EXPECT_THAT(recorder.told(), IsEmpty());
    EXPECT_TRUE(server.waitForPackets(Type::DISCONNECT, 1));
}

TEST_F(CleaningOnASlowBroker, TakesRequestsWhileAnotherOneEnds) {
    cleaner->clean("b", AN_HOUR);
    EXPECT_TRUE(server.waitForPackets(Type::SUBSCRIBE, 2));
    server.release();
    EXPECT_TRUE(recorder.waitForCount(1));
    EXPECT_FALSE(cleaner->waitAllTasks(milliseconds(0)));
    EXPECT_THAT(recorder.told(), ElementsAre("a"));
}

TEST_F(CleaningOnASlowBroker, ReportsATopicWithoutTheBrokersAnswer) {
    EXPECT_TRUE(cleaner->waitAllTasks(support::DEADLINE));
    EXPECT_THAT(recorder.told(), ElementsAre("a", ALL));
}

} // namespace
