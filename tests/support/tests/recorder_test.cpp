#include "support/recorder.hpp"

#include "support/stand_in/stand_in.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>

#include <set>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::Delivery;
using support::MessageRecorder;
using support::StandIn;
using support::StateRecorder;
using testing::ElementsAre;

constexpr auto SUCCESS = MqttClient::Error::SUCCESS;

support::ClientOptions unconnected() {
    support::ClientOptions options;
    options.connect = false;
    return options;
}

TEST(ATestClient, HasAnIdentifierOfItsOwn) {
    EXPECT_NE(support::uniqueId(), support::uniqueId());
    EXPECT_NE(support::uniqueId(), zym::common::Uuid::NIL);
}

TEST(ATestClient, HasTheIdentifierItIsGiven) {
    support::ClientOptions options = unconnected();
    options.id = zym::common::Uuid(42);
    options.persistent = true;
    auto const client = support::testClient("host", 1234, options);
    auto const script = StandIn::withClientId(MqttClient::clientId(options.id));
    ASSERT_TRUE(script);
    EXPECT_FALSE(script->cleanSession());
    EXPECT_EQ(script->count(StandIn::Operation::CONNECT), 0U);
}

TEST(ATestClient, IsConnectedWhenItIsThere) {
    auto const client = support::testClient("host", 1234);
    EXPECT_EQ(client->communicationState(), ComState::CONNECTED);
    auto const call = StandIn::last()->calls(StandIn::Operation::CONNECT).at(0);
    EXPECT_EQ(call.topic, "host");
    EXPECT_EQ(call.qos, 1234);
}

TEST(AMessageRecorder, KeepsWhatItGetsInOrder) {
    MessageRecorder recorder;
    auto const client = support::testClient("host", 1234);
    ASSERT_EQ(client->subscribe("a", &recorder, 1), SUCCESS);
    ASSERT_EQ(client->subscribe("b", &recorder, 2), SUCCESS);
    StandIn::last()->deliver("b", "first");
    StandIn::last()->deliver("a", "second");
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_THAT(recorder.deliveries(),
                ElementsAre(Delivery{2, "b", "first"}, Delivery{1, "a", "second"}));
    EXPECT_THAT(recorder.payloads(), ElementsAre("first", "second"));
}

TEST(AMessageRecorder, WaitsForWhatItIsToldTo) {
    MessageRecorder recorder;
    recorder.onMqttMessage(1, "a", "b");
    EXPECT_TRUE(recorder.waitForPayload("b"));
    EXPECT_TRUE(recorder.waitFor([](auto const& all) { return all.size() == 1; }));
    auto const soon = std::chrono::milliseconds(10);
    EXPECT_FALSE(recorder.waitForPayload("c", soon));
    EXPECT_FALSE(recorder.waitForCount(2, soon));
    recorder.clear();
    EXPECT_EQ(recorder.count(), 0U);
}

TEST(AMessageRecorder, CallsItsHookAfterItKeptTheMessage) {
    std::size_t seen = 0;
    MessageRecorder recorder([&](int tag, mqtt::Topic const& topic, std::string const& payload) {
        seen = recorder.count();
        EXPECT_EQ(tag, 1);
        EXPECT_EQ(topic.text(), "a");
        EXPECT_EQ(payload, "b");
    });
    recorder.onMqttMessage(1, "a", "b");
    EXPECT_EQ(seen, 1U);
}

TEST(AStateRecorder, SeesEveryChange) {
    std::set<ComState> hooked;
    StateRecorder recorder([&](ComState state) { hooked.insert(state); });
    auto const client = support::testClient("host", 1234, unconnected());
    client->registerListener(&recorder);
    EXPECT_EQ(client->connect("", -1, 20), SUCCESS);
    EXPECT_TRUE(recorder.waitFor(ComState::CONNECTED));
    EXPECT_EQ(client->disconnect(20), SUCCESS);
    EXPECT_TRUE(recorder.waitForHistory(
        {ComState::CONNECTING, ComState::CONNECTED, ComState::DISCONNECTED}));
    EXPECT_EQ(hooked.size(), 3U);
}

TEST(AStateRecorder, TellsWhenAStateDoesNotCome) {
    StateRecorder recorder;
    recorder.onComStateChanged(ComState::CONNECTING);
    EXPECT_FALSE(recorder.waitFor(ComState::CONNECTED, std::chrono::milliseconds(10)));
    EXPECT_FALSE(recorder.waitForHistory({}, std::chrono::milliseconds(10)));
    recorder.clear();
    EXPECT_TRUE(recorder.waitForHistory({}));
}

} // namespace
