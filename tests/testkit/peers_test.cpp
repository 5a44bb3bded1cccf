// What stands at the broker beside the application under test.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/scripted_service.hpp"
#include "mqtt/test/test_client.hpp"
#include "mqtt/test/time_base.hpp"
#include "requestreply/sample_data.hpp"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using mqtt::test::Message;
using testing::ElementsAre;
using testing::IsEmpty;
using zym::common::Uuid;
using Code = mqtt::RequestReply::ErrorCode;

/// With a client that stands for the application, and one for what the test provides.
class APeer : public testing::Test {
protected:
    mqtt::test::Broker broker;
    std::unique_ptr<mqtt::MqttClient> application = mqtt::test::testClient(broker);
    std::unique_ptr<mqtt::MqttClient> provider = mqtt::test::testClient(broker);
    Uuid const id = mqtt::test::uniqueId();
};

class AScriptedService : public APeer {
protected:
    Code ask(unsigned timeoutSeconds = 30) {
        return client.requestWait(mqtt::test::uniqueId(), id, std::make_shared<NumberData>(7),
                                  reply, timeoutSeconds);
    }

    mqtt::test::ScriptedService service{*provider, "svc", "tank",
                                        "draw",    id,    std::make_shared<NumberData>(0)};
    mqtt::RequestReplyClient client{*application, "svc", "tank", "draw"};
    std::shared_ptr<NumberData> reply = std::make_shared<NumberData>(0);
};

TEST_F(AScriptedService, AnswersWithRepliesErrorsOrNothing) {
    EXPECT_EQ(ask(), Code::SUCCESS);
    service.answer({std::make_shared<NumberData>(8), Code{17}});
    EXPECT_EQ(ask(), Code{17});
    EXPECT_EQ(reply->number, 8U);
    service.answer([](mqtt::RequestReplyData const& request) {
        auto const number = dynamic_cast<NumberData const&>(request).number;
        return mqtt::test::ScriptedService::Answer{std::make_shared<NumberData>(number + 2)};
    });
    EXPECT_EQ(ask(), Code::SUCCESS);
    EXPECT_EQ(reply->number, 9U);
    service.ignore();
    EXPECT_EQ(ask(1), Code::TIMEOUT);
    EXPECT_EQ(service.requests(), 4U);
}

TEST_F(AScriptedService, AnswersLate) {
    service.hold();
    EXPECT_EQ(ask(1), Code::TIMEOUT);
    EXPECT_EQ(service.requests(), 1U);
    mqtt::test::RawPeer peer(broker);
    peer.subscribe("svc/#");
    service.release();
    EXPECT_TRUE(peer.waitForMessages(1));
    EXPECT_EQ(ask(), Code::SUCCESS);
}

TEST_F(APeer, WithAManualClockIsATimeServer) {
    mqtt::test::ManualClock serverClock(1000);
    mqtt::test::ManualClock localClock(50);
    mqtt::test::ClockedAdaptor server(*provider, "svc", id, std::ref(serverClock));
    mqtt::test::ClockedProxy proxy(*application, "svc", mqtt::test::uniqueId(), nullptr,
                                   std::ref(localClock));
    ASSERT_TRUE(proxy.synchronize(id, 30));
    EXPECT_EQ(proxy.timeBase(), 1000U);
    localClock.advance(5);
    EXPECT_EQ(proxy.timeBase(), 1005U);
    serverClock.set(2000);
    EXPECT_EQ(server.timeBase(), 2000U);
}

TEST_F(APeer, FindsWhatTheBrokerRetains) {
    using mqtt::test::waitForRetained;
    auto const isEmpty = [](std::string const& payload) { return payload.empty(); };
    auto const isThree = [](std::string const& payload) { return payload == "3"; };
    application->publishWait("plant/level", "3", 1, true, 30);
    EXPECT_THAT(mqtt::test::allRetained(broker, "plant/#"),
                ElementsAre(Message{"plant/level", "3", 1, true}));
    EXPECT_TRUE(waitForRetained(broker, "plant/level", isThree));
    EXPECT_FALSE(waitForRetained(broker, "plant/level", isEmpty, std::chrono::milliseconds(0)));
    application->publishWait("plant/level", "", 1, true, 30);
    EXPECT_TRUE(waitForRetained(broker, "plant/level", isEmpty));
    EXPECT_THAT(mqtt::test::allRetained(broker, "plant/#"), IsEmpty());
}

TEST_F(APeer, PublishesAgainAfterAPublicationThatIsRefused) {
    mqtt::test::RawPeer peer(broker);
    EXPECT_THROW(peer.publish("plant/#", "3"), std::runtime_error);
    peer.publish("plant/level", "3");
}

} // namespace
