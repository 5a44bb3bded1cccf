// What a service from functions costs beside one made with listeners, and a call without memory.

#include "client/receiving_client.hpp"
#include "requestreply/server_fixture.hpp"
#include "support/manual_timer.hpp"

#include <mqtt/service.hpp>

namespace {

using zym::common::Uuid;
using Operation = support::StandIn::Operation;

struct Number {
    unsigned number = 0;
};
ZYM_MQTT_FIELDS(Number, number)

constexpr std::chrono::hours LONG{1};

/// As an application would write it without `mqtt::Server`.
struct Doubling final : mqtt::RequestReplyServer::Listener {
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*client*/, Uuid const& /*server*/,
              mqtt::RequestReplyData const& data, Code& /*error*/) override {
        return std::make_shared<NumberData>(2 * dynamic_cast<NumberData const&>(data).number);
    }
};

class AServiceOnAScript : public AReceivingClient {
protected:
    AServiceOnAScript() { manual_timer::reset(); }
    ~AServiceOnAScript() override { manual_timer::reset(); }

    /// Of the second action: the first one makes buffers grow.
    template <class Action>
    static std::size_t allocationsOf(Action const& action) {
        action();
        support::AllocationCount const count;
        action();
        return count.value();
    }

    mqtt::Service<Number, Number> const SERVICE{"svc", "double"};
    Uuid const id{1};
    unsigned results = 0;
    mqtt::Caller<Number, Number> caller{*client_, SERVICE, mqtt::ClientId(id), mqtt::ServerId()};
    mqtt::Caller<Number, Number>::Function const count = [this](auto const&) { ++results; };
};

TEST_F(AServiceOnAScript, IsCalledWithNoMoreAllocationsThanAListener) {
    mqtt::RequestReplyClient client(*client_, "svc", "", "double");
    auto const byHand = allocationsOf([&] {
        client.request(nullptr, id, Uuid::NIL, std::make_shared<NumberData>(7),
                       std::make_shared<NumberData>(), nullptr, LONG_TIMEOUT_S);
        client.cancel();
    });
    auto const byFunction = allocationsOf([&] {
        EXPECT_EQ(caller.call({7}, LONG, count), Code::PENDING);
        caller.cancel();
    });
    EXPECT_LE(byFunction, byHand);
    EXPECT_EQ(results, 2U);
}

TEST_F(AServiceOnAScript, AnswersWithNoMoreAllocationsThanAListener) {
    auto const topic = "svc/double?\?/" + id.base64URL();
    std::string const request = R"({"$reqId": 1, "number": 7})";
    std::size_t byHand = 0;
    {
        Doubling listener;
        mqtt::RequestReplyServer server(*client_, "svc", "", "double");
        ASSERT_EQ(server.subscribe(&listener, Uuid::NIL, std::make_shared<NumberData>()),
                  mqtt::MqttClient::Error::SUCCESS);
        byHand = allocationsToReceive(topic, request);
    }
    mqtt::Server const server(
        *client_, SERVICE, mqtt::ServerId(),
        [](Number const& wanted) -> mqtt::Result<Number> { return Number{2 * wanted.number}; });
    auto const byFunction = allocationsToReceive(topic, request);
    EXPECT_LE(byFunction, byHand);
    ASSERT_EQ(script_->count(Operation::PUBLISH), 4U);
    for (auto const& reply : published()) {
        EXPECT_EQ(reply, "{\n  \"$reqId\": 1,\n  \"$err\": 1,\n  \"number\": 14\n}");
    }
}

TEST_F(AServiceOnAScript, IsNotCalledWithoutMemory) {
    auto const captured = std::make_shared<int>(7);
    auto code = Code::NONE;
    auto const failures = support::failEachAllocation(
        [&] { code = caller.call({7}, LONG, [captured, this](auto const&) { ++results; }); },
        [&](unsigned which) {
            support::UncountedAllocations const uncounted;
            EXPECT_EQ(script_->count(Operation::PUBLISH), 0U) << which;
            EXPECT_EQ(captured.use_count(), 1) << which << ": the function is destroyed";
        });
    EXPECT_GT(failures, 5U);
    EXPECT_EQ(code, Code::PENDING);
    EXPECT_EQ(results, 0U);
    caller.cancel();
    EXPECT_EQ(results, 1U);
}

} // namespace
