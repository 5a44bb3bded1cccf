// Discovery on a real broker.

#include "services/discoverer_fixture.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"

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

TEST_F(Discovery, GoesOnWhenTheBrokerRestarts) {
    publishLinks({"a", "b"});
    publishEntity("a");
    broker.stop();
    ASSERT_TRUE(support::eventually(
        [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
    auto run = std::async(std::launch::async, [this] { // without a connection
        return discoverer.discoverSync(SUCCESS_TIMEOUT_S, true);
    });
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

} // namespace
