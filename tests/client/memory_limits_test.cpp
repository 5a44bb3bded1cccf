// How much memory a client with a limit takes while the broker is away, or does not read.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/eventually.hpp"
#include "mqtt/test/test_client.hpp"

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>

#include <gmock/gmock.h>

#include <malloc.h>

#include <cstddef>
#include <string>

namespace {

using mqtt::MqttClient;
using mqtt::QueueLimits;
using Policy = QueueLimits::Policy;

constexpr std::size_t LIMIT = 1024 * 1024;
constexpr std::size_t ALLOWED_GROWTH = LIMIT + LIMIT / 2;
constexpr int PUBLICATIONS = 30'000; // 10 MiB without a limit

/// In use, by all threads and libraries.
std::size_t heap() {
    auto const info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

class ALimitOfOneMebibyte : public testing::TestWithParam<Policy> {
protected:
    ALimitOfOneMebibyte() {
        options_.connection.queueLimits.bytes = LIMIT;
        options_.connection.queueLimits.policy = GetParam();
    }

    /// On as many topics as given.
    static void expectSmallGrowth(MqttClient& client, int topics, int qos) {
        SCOPED_TRACE(testing::Message() << topics << " topics at QoS " << qos);
        std::string const payload(200, 'x');
        auto const before = heap();
        for (int i = 0; i < PUBLICATIONS; ++i) {
            client.publish("plant/pump/" + std::to_string(i % topics), payload, qos, true);
        }
        auto const after = heap();
        EXPECT_LT(after, before + ALLOWED_GROWTH);
    }

    mqtt::test::ClientOptions options_;
};
INSTANTIATE_TEST_SUITE_P(Policy, ALimitOfOneMebibyte,
                         testing::Values(Policy::REJECT_NEW, Policy::DROP_OLDEST,
                                         Policy::NEWEST_OF_EACH_TOPIC));

TEST_P(ALimitOfOneMebibyte, HoldsWithoutAConnection) {
    options_.connect = false;
    auto const offline = mqtt::test::testClient("127.0.0.1", 1, options_);
    expectSmallGrowth(*offline, 1, 2);
    expectSmallGrowth(*offline, 300, 2);
}

TEST_P(ALimitOfOneMebibyte, HoldsWhileAConnectedBrokerDoesNotRead) {
    mqtt::test::Broker broker;
    options_.connection.tls = broker.connectionOptions().tls;
    for (int const qos : {0, 1, 2}) {
        auto const connected = mqtt::test::testClient(broker.host(), broker.port(), options_);
        broker.suspend();
        expectSmallGrowth(*connected, 300, qos);
        broker.resume();
        // There is room again. A wait ends by time-out when an older publication is acknowledged in
        // the same step, so it is short.
        EXPECT_TRUE(mqtt::test::eventually([&] {
            return connected->publishWait("end", "", 1, false, 2) == MqttClient::Error::SUCCESS;
        }));
    }
}

} // namespace
