#include "operations.hpp"

using conv::SecondsDuration;

namespace {

void makeDiscoverer(Stage& stage) {
    stage.things.makeDiscoverer("far/links");
}

void discover(Stage& stage) {
    EXPECT_TRUE(stage.things.makeDiscoverer("far/links").discoverSync(PATIENCE, true));
}

void expectEntities(Stage const& stage) {
    auto const entities = stage.things.discoverer->entities();
    ASSERT_EQ(entities.size(), 2U);
    EXPECT_EQ(entities[0].name, "one");
    EXPECT_EQ(entities[1].name, "two");
}

/// Without limit: the one entity says nothing.
void beginToDiscover(Stage& stage) {
    auto& discoverer = stage.things.makeDiscoverer(stage.topic("links"));
    stage.peer.publish(
        stage.topic("links"),
        R"({"members@count": 1, "members": [{"@id": ")" + stage.topic("mute") + "\"}]}", 2, true);
    stage.things.discovery = std::async(std::launch::async, [&discoverer] {
        return discoverer.discoverSync(SecondsDuration::NO_TIMEOUT, true);
    });
    EXPECT_TRUE(support::eventually([&] { return discoverer.entities().size() == 1; }));
}

void expectEnd(Stage& stage) {
    EXPECT_FALSE(stage.things.discovery.get());
}

} // namespace

Operations discoveryOperations() {
    return {{"ServiceDiscovererMqtt/discoverSync", makeDiscoverer,
             [](Stage& s) { EXPECT_TRUE(s.things.discoverer->discoverSync(PATIENCE, true)); },
             expectEntities},
            {"ServiceDiscovererMqtt/waitChange", makeDiscoverer,
             [](Stage& s) { EXPECT_TRUE(s.things.discoverer->waitChange(PATIENCE, true)); },
             expectEntities},
            {"ServiceDiscovererMqtt/links", discover,
             [](Stage& s) { EXPECT_EQ(s.things.discoverer->links().size(), 2U); }, nothing},
            {"ServiceDiscovererMqtt/entities", discover, expectEntities, nothing},
            {"ServiceDiscovererMqtt/cleanSubscriptions", beginToDiscover,
             [](Stage& s) { s.things.discoverer->cleanSubscriptions(); },
             [](Stage& s) {
                 s.reaches(s.topic("mute/identification"), R"({"name": "late"})", "");
                 EXPECT_EQ(s.things.discoverer->entities().at(0).name, "");
                 s.things.discoverer.reset();
                 expectEnd(s);
             }},
            {"ServiceDiscovererMqtt/destroy", beginToDiscover,
             [](Stage& s) { s.things.discoverer.reset(); }, expectEnd}};
}
