// Cleaners on a real broker.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/test_client.hpp"
#include "services/cleaner_recorder.hpp"

#include <gmock/gmock.h>

#include <memory>

namespace {

using mqtt::TopicCleaner;
using mqtt::test::RawPeer;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class Cleaning : public testing::Test {
protected:
    static mqtt::test::BrokerOptions quick() {
        mqtt::test::BrokerOptions options;
        options.nodelay = true;
        return options;
    }

    std::unique_ptr<TopicCleaner> makeCleaner() {
        return std::make_unique<TopicCleaner>(&recorder, mqtt::test::uniqueId(), broker.host(),
                                              broker.port());
    }

    void retain(std::string const& topic) {
        RawPeer(broker).publish(topic, "payload of " + topic, 1, true);
    }

    /// Waits until these topics have retained messages. Erasures may arrive meanwhile.
    bool becomesRetained(Strings const& topics) {
        return mqtt::test::eventually([&] {
            RawPeer peer(broker);
            peer.subscribe("#");
            peer.publish("last", "", 1);
            Strings now;
            EXPECT_TRUE(peer.waitFor([&](auto const& all) {
                now.clear();
                for (auto const& message : all) {
                    if (message.retain || message.topic == "last") {
                        now.push_back(message.topic);
                    }
                }
                return !now.empty() && now.back() == "last";
            }));
            now.pop_back();
            return now == topics;
        });
    }

    mqtt::test::Broker broker{quick()};
    CleanerRecorder recorder;
    std::unique_ptr<TopicCleaner> cleaner = makeCleaner();
};

TEST_F(Cleaning, ErasesWhatIsRetainedBelowPatternsThatOverlap) {
    RawPeer peer(broker);
    for (int i = 0; i < 1000; ++i) {
        peer.post("many/" + std::to_string(i), "payload", 1, true);
    }
    peer.waitForAcknowledgements();
    retain("other");
    for (auto const* const topic : {"many/1", "many/+", "many/#", "+/1"}) {
        cleaner->clean(topic, LONG_DURATION);
    }
    EXPECT_TRUE(becomesRetained({"other"}));
    EXPECT_THAT(recorder.calls(), IsEmpty());
    retain("many/late");
    EXPECT_TRUE(becomesRetained({"other"}));
}

TEST_F(Cleaning, StartsAndGoesOnWhenTheBrokerComesBack) {
    broker.stop();
    cleaner = makeCleaner();
    cleaner->clean("a/#", LONG_DURATION);
    broker.start();
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
    EXPECT_TRUE(cleaner->waitAllTasks(mqtt::test::DEADLINE));
    EXPECT_THAT(recorder.calls(), ElementsAre("a", "b", ALL));
}

} // namespace
