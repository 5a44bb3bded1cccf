// Discovery on a real broker.

#include "requestreply/blocking_thread.hpp"
#include "requestreply/rounds.hpp"
#include "services/discoverer_fixture.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"

#include <atomic>
#include <thread>

namespace {

using mqtt::ServiceDiscovererMqtt;
using testing::ElementsAre;
using testing::SizeIs;

class Discovery : public testing::Test {
protected:
    static support::BrokerOptions persistent() {
        support::BrokerOptions options;
        options.nodelay = true;
        options.persistence = true;
        return options;
    }

    void publishLinks(Strings const& ids) { peer->publish(ENTITIES, listOf(ids), 2, true); }
    void publishEntity(std::string const& id) {
        peer->publish(id + "/identification", identificationOf(id), 2, true);
    }
    std::future<bool> startRun() {
        return std::async(std::launch::async,
                          [this] { return discoverer.discoverSync(SUCCESS_TIMEOUT_S, true); });
    }

    support::Broker broker{persistent()};
    std::unique_ptr<support::RawPeer> peer = std::make_unique<support::RawPeer>(broker);
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(broker);
    ServiceDiscovererMqtt discoverer{*client, ENTITIES};
};

TEST_F(Discovery, FindsTwoHundredEntities) {
    Strings ids;
    for (int i = 0; i < 200; ++i) {
        ids.push_back("entity/" + std::to_string(i));
        peer->post(ids.back() + "/identification", identificationOf(ids.back()), 1, true);
    }
    peer->waitForAcknowledgements();
    publishLinks(ids);
    EXPECT_TRUE(discoverer.discoverSync(SUCCESS_TIMEOUT_S, true));
    EXPECT_EQ(idsOf(discoverer.links()), ids);
    auto const entities = discoverer.entities();
    ASSERT_THAT(entities, SizeIs(200));
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(textsOf(entities[i]), textsOf(ids[i]));
    }
}

TEST_F(Discovery, FindsWhatIsPublishedDuringARun) {
    auto run = startRun();
    publishLinks({"a"});
    EXPECT_TRUE(isUnderWay(run));
    publishEntity("a");
    EXPECT_TRUE(run.get());
    EXPECT_FALSE(discoverer.waitChange(1, false));
    auto change = std::async(std::launch::async,
                             [&] { return discoverer.waitChange(SUCCESS_TIMEOUT_S, false); });
    publishLinks({"b"});
    EXPECT_TRUE(change.get());
    EXPECT_THAT(idsOf(discoverer.links()), ElementsAre("b"));
}

TEST_F(Discovery, GoesOnWhenTheBrokerRestarts) {
    publishLinks({"a", "b"});
    publishEntity("a");
    broker.stop();
    ASSERT_TRUE(support::eventually(
        [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
    auto run = startRun(); // without a connection
    EXPECT_TRUE(isUnderWay(run));
    broker.start();
    ASSERT_TRUE(support::eventually([&] {
        auto const entities = discoverer.entities();
        return entities.size() == 2 && entities[0].uuid != UNKNOWN_UUID;
    }));
    broker.stop();
    EXPECT_TRUE(isUnderWay(run));
    broker.start();
    peer = std::make_unique<support::RawPeer>(broker);
    publishEntity("b");
    EXPECT_TRUE(run.get());
    EXPECT_THAT(textsOf(discoverer.entities()), ElementsAre(textsOf("a"), textsOf("b")));
}

/// Publishes changing lists and identifications until its end; one entity never answers.
class ChangingEntities {
public:
    explicit ChangingEntities(support::Broker const& broker)
        : peer_(broker), thread_([this] { run(); }) {}
    ~ChangingEntities() {
        stop_ = true;
        thread_.join();
    }
    ChangingEntities(ChangingEntities const&) = delete;
    ChangingEntities& operator=(ChangingEntities const&) = delete;

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
            // Not faster than the broker receives them.
            if (i % 16 == 0) {
                peer_.publish("pace", "", 1);
            }
        }
    }

    support::RawPeer peer_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// How far a run on another thread has come.
enum class Progress { WAITS, HAS_LINKS, HAS_AN_ANSWER };

bool hasReached(Progress progress, ServiceDiscovererMqtt const& discoverer,
                BlockingThread const& run) {
    if (progress == Progress::WAITS) {
        return run.isBlocked();
    }
    return support::eventually([&] {
        auto const entities = discoverer.entities();
        return !entities.empty()
               && (progress == Progress::HAS_LINKS || entities[0].uuid != UNKNOWN_UUID);
    });
}

/// Some defects here are seen by a sanitizer only.
TEST_F(Discovery, EndsWithItsDiscovererInManyRounds) {
    ChangingEntities const entities(broker);
    int const count = rounds(24);
    for (int round = 0; round < count; ++round) {
        support::Watched<std::unique_ptr<ServiceDiscovererMqtt>> owner(
            std::make_unique<ServiceDiscovererMqtt>(*client, ENTITIES));
        auto const destroy = [&] { owner.change([](auto& pointer) { pointer.reset(); }); };
        auto* const which = owner.read([](auto const& pointer) { return pointer.get(); });
        BlockingThread run([which] { EXPECT_FALSE(which->discoverSync(NO_TIME_LIMIT, true)); });
        EXPECT_TRUE(hasReached(static_cast<Progress>(round % 3), *which, run));
        if (round % 2 == 0) {
            destroy();
            continue;
        }
        support::MessageRecorder onTheWorker([&](auto&&...) { destroy(); });
        ASSERT_EQ(client->subscribe("pace", &onTheWorker, 0), mqtt::MqttClient::Error::SUCCESS);
        EXPECT_TRUE(owner.waitFor([](auto const& pointer) { return pointer == nullptr; }));
        client->release(&onTheWorker);
    }
}

} // namespace
