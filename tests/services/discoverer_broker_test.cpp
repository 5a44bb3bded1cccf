// Discovery on a real broker, and discoverers that come and go while messages fly. Some of this
// only a sanitizer can see.

#include "requestreply/blocking_thread.hpp"
#include "services/discoverer_frame.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/timeout_factor.hpp"

#include <atomic>
#include <thread>

namespace {

using mqtt::ServiceDiscovererMqtt;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class Discovery : public testing::Test {
protected:
    static support::BrokerOptions lasting() {
        support::BrokerOptions options;
        options.nodelay = true;
        options.persistence = true;
        return options;
    }

    void publishLinks(Strings const& ids) { peer->publish(ENTITIES, listOf(ids), 2, true); }
    void publishEntity(std::string const& id) {
        peer->publish(id + "/identification", identificationOf(id), 2, true);
    }

    /// How often the broker's log says this of topics of ours.
    std::size_t countInLog(std::string const& text) const {
        auto const log = broker.log();
        std::size_t count = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

    support::Broker broker{lasting()};
    std::unique_ptr<support::RawPeer> peer = std::make_unique<support::RawPeer>(broker);
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(broker);
    ServiceDiscovererMqtt discoverer{*client, ENTITIES};
};

TEST_F(Discovery, FindsWhatIsThere) {
    publishLinks({"a", "b/c", "a"});
    publishEntity("a");
    publishEntity("b/c");
    EXPECT_TRUE(discoverer.discoverSync(LONG_ENOUGH, true));
    EXPECT_THAT(idsOf(discoverer.links()), ElementsAre("a", "b/c", "a"));
    EXPECT_THAT(textsOf(discoverer.entities()),
                ElementsAre(textsOf("a"), textsOf("b/c"), textsOf("a")));
}

TEST_F(Discovery, WaitsForWhatComesLater) {
    auto run =
        std::async(std::launch::async, [&] { return discoverer.discoverSync(LONG_ENOUGH, true); });
    publishLinks({"a"});
    EXPECT_TRUE(isUnderWay(run));
    publishEntity("a");
    EXPECT_TRUE(run.get());
}

TEST_F(Discovery, FindsTwoHundredEntities) {
    Strings ids;
    for (int i = 0; i < 200; ++i) {
        ids.push_back("entity/" + std::to_string(i));
        peer->post(ids.back() + "/identification", identificationOf(ids.back()), 1, true);
    }
    peer->waitForAcknowledgements();
    publishLinks(ids);
    EXPECT_TRUE(discoverer.discoverSync(LONG_ENOUGH, true));
    auto const entities = discoverer.entities();
    ASSERT_THAT(entities, SizeIs(200));
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(textsOf(entities[i]), textsOf(ids[i]));
    }
}

TEST_F(Discovery, SeesAChange) {
    publishLinks({"a"});
    ASSERT_TRUE(discoverer.discoverSync(LONG_ENOUGH, false));
    EXPECT_FALSE(discoverer.waitChange(1, false));
    auto run =
        std::async(std::launch::async, [&] { return discoverer.waitChange(LONG_ENOUGH, false); });
    publishLinks({"b"});
    EXPECT_TRUE(run.get());
    EXPECT_THAT(idsOf(discoverer.links()), ElementsAre("b"));
}

TEST_F(Discovery, GoesOnWhenTheBrokerRestarts) {
    publishLinks({"a", "b"});
    publishEntity("a");
    auto run =
        std::async(std::launch::async, [&] { return discoverer.discoverSync(LONG_ENOUGH, true); });
    ASSERT_TRUE(support::eventually([&] {
        auto const entities = discoverer.entities();
        return entities.size() == 2 && entities[0].uuid != UNKNOWN;
    }));
    broker.stop();
    EXPECT_TRUE(isUnderWay(run));
    broker.start();
    peer = std::make_unique<support::RawPeer>(broker);
    publishEntity("b");
    EXPECT_TRUE(run.get());
    EXPECT_THAT(textsOf(discoverer.entities()), ElementsAre(textsOf("a"), textsOf("b")));
}

TEST_F(Discovery, StartsWhileTheBrokerIsAway) {
    publishLinks({"a"});
    publishEntity("a");
    broker.stop();
    ASSERT_TRUE(support::eventually(
        [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
    auto run =
        std::async(std::launch::async, [&] { return discoverer.discoverSync(LONG_ENOUGH, true); });
    EXPECT_TRUE(isUnderWay(run));
    broker.start();
    EXPECT_TRUE(run.get());
    EXPECT_THAT(textsOf(discoverer.entities()), ElementsAre(textsOf("a")));
}

TEST_F(Discovery, LeavesNothingSubscribedAtTheBroker) {
    publishLinks({"a", "b", "silent"});
    publishEntity("a");
    publishEntity("b");
    EXPECT_TRUE(discoverer.discoverSync(LONG_ENOUGH, false));
    EXPECT_FALSE(discoverer.discoverSync(1, true));
    ASSERT_EQ(client->publishWait("settled", "", 1, false, LONG_ENOUGH),
              mqtt::MqttClient::Error::SUCCESS);
    // Two times the list, and three entities.
    EXPECT_EQ(countInLog("Sending SUBACK to"), 5U);
    EXPECT_EQ(countInLog("Sending UNSUBACK to"), 5U);
}

constexpr int ROUNDS = 60 / support::TIMEOUT_FACTOR;

/// Publishes lists and identifications without end; one entity never answers.
class Bustle {
public:
    explicit Bustle(support::Broker const& broker) : peer_(broker), thread_([this] { run(); }) {}
    ~Bustle() {
        stop_ = true;
        thread_.join();
    }
    Bustle(Bustle const&) = delete;
    Bustle& operator=(Bustle const&) = delete;

private:
    void run() {
        for (unsigned i = 0; !stop_; ++i) {
            peer_.post(ENTITIES,
                       i % 2 == 0 ? listOf({"a", "b", "silent"})
                                  : listOf({"b", "silent", "a", "a"}),
                       0, true);
            peer_.post("a/identification", identificationOf("a"), 0, true);
            peer_.post("b/identification", i % 8 == 1 ? "nonsense" : identificationOf("b"), 0,
                       true);
            // No faster than the broker takes it: its memory is finite.
            if (i % 16 == 0) {
                peer_.publish("pace", "", 1);
            }
        }
    }

    support::RawPeer peer_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// Something that shows how far a run on another thread is; it is surely inside then.
bool isAsFarAs(int stage, ServiceDiscovererMqtt const& discoverer, BlockingThread const& run) {
    auto const hasAnswer = [&] {
        auto const entities = discoverer.entities();
        return !entities.empty() && entities[0].uuid != UNKNOWN;
    };
    switch (stage) {
    case 0:
        return run.isBlocked();
    case 1:
        return support::eventually([&] { return !discoverer.links().empty(); });
    default:
        return support::eventually(hasAnswer);
    }
}

TEST_F(Discovery, IsCalledOffAtAnyMomentWhileMessagesFly) {
    Bustle const bustle(broker);
    for (int round = 0; round < ROUNDS; ++round) {
        auto passing = std::make_unique<ServiceDiscovererMqtt>(*client, ENTITIES);
        BlockingThread run(
            [which = passing.get()] { EXPECT_FALSE(which->discoverSync(WITHOUT_LIMIT, true)); });
        EXPECT_TRUE(isAsFarAs(round % 3, *passing, run));
        passing.reset();
    }
}

TEST_F(Discovery, IsCalledOffOnTheWorkerWhileMessagesFly) {
    Bustle const bustle(broker);
    for (int round = 0; round < ROUNDS; ++round) {
        support::Watched<std::unique_ptr<ServiceDiscovererMqtt>> passing(
            std::make_unique<ServiceDiscovererMqtt>(*client, ENTITIES));
        auto* const which = passing.read([](auto const& owner) { return owner.get(); });
        BlockingThread run([which] { EXPECT_FALSE(which->discoverSync(WITHOUT_LIMIT, true)); });
        EXPECT_TRUE(isAsFarAs(round % 3, *which, run));
        support::MessageRecorder killer(
            [&](auto&&...) { passing.change([](auto& owner) { owner.reset(); }); });
        ASSERT_EQ(client->subscribe("pace", &killer, 0), mqtt::MqttClient::Error::SUCCESS);
        EXPECT_TRUE(passing.waitFor([](auto const& owner) { return owner == nullptr; }));
        client->release(&killer);
    }
}

} // namespace
