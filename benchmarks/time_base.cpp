// The server's clock is ours plus an offset that this file chooses, so the truth is known. Both
// clocks are cut to milliseconds, as they are by default.

#include "measurements.hpp"

#include "mqtt/test/test_client.hpp"

#include <mqtt/time_base.hpp>

#include <chrono>
#include <cmath>
#include <stdexcept>

namespace bench {
namespace {

using zym::common::Uuid;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr unsigned TIMEOUT_SECONDS = 30;
/// The cut to milliseconds falls differently on both sides, in each run.
constexpr double FIRST_OFFSET_SECONDS = 3600.000123;
constexpr double OFFSET_STEP_SECONDS = 100.000347;

/// A server whose clock is ahead of ours.
class AdaptorWithOffset final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    AdaptorWithOffset(mqtt::MqttClient& client, Uuid const& id, double offsetSeconds)
        : mqtt::SynchronizedTimeBaseMqttAdaptor(client, "bench", id),
          offsetSeconds_(offsetSeconds) {}
    ~AdaptorWithOffset() override { release(); }

    double localTimeBase() const override {
        using Seconds = std::chrono::duration<double>;
        Seconds const now = std::chrono::steady_clock::now().time_since_epoch();
        return std::floor((now.count() + offsetSeconds_) * 1000.0) / 1000.0;
    }

private:
    double const offsetSeconds_;
};

Figures synchronizeOnce(BenchmarkBroker const& broker, int run) {
    auto const serverClient = mqtt::test::testClient(broker);
    auto const client = mqtt::test::testClient(broker);
    Uuid const server = mqtt::test::uniqueId();
    double const offset = FIRST_OFFSET_SECONDS + run * OFFSET_STEP_SECONDS;
    AdaptorWithOffset const adaptor(*serverClient, server, offset);
    // The broker acknowledges this after the server's subscription: no request comes before it.
    serverClient->publishWait("bench/ready", "", 1, false, TIMEOUT_SECONDS);
    mqtt::SynchronizedTimeBaseMqttProxy proxy(*client, "bench", mqtt::test::uniqueId(), nullptr);
    auto const start = std::chrono::steady_clock::now();
    if (!proxy.synchronize(server, TIMEOUT_SECONDS)) {
        throw std::runtime_error("the time base was not synchronised");
    }
    Milliseconds const duration = std::chrono::steady_clock::now() - start;
    return {{"error", "ms", std::abs(proxy.offset() + offset) * 1000.0},
            {"duration", "ms", duration.count()}};
}

} // namespace

void measureTimeBase(Options const& options) {
    for (auto const* const configuration : options.brokers) {
        BenchmarkBroker const broker(configuration);
        measureInTurns(options, {"time-base", "first synchronisation", 20, configuration},
                       {{"ours", [&](int run) { return synchronizeOnce(broker, run); }}});
    }
}

} // namespace bench
