// How far the time base's estimate is from the truth after the first synchronisation.
//
// The server's clock is ours plus an offset that we choose, so the truth is known. Both clocks are
// cut to milliseconds, as they are by default.

#include "broker_process.hpp"
#include "statistics.hpp"

#include <mqtt/time_base.hpp>

#include <mosquittopp.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using zym::common::Uuid;

constexpr char const* USAGE =
    "bench-time-base [--nodelay]\n"
    "Compares the estimated offset of a server's clock with the true one, over 20 runs.\n"
    "  --nodelay  a broker with set_tcp_nodelay true, in place of one as shipped\n";
constexpr int RUNS = 20;
/// Such that the cut to milliseconds falls differently on both sides, in each run.
constexpr double FIRST_OFFSET = 3600.000123;
constexpr double NEXT_OFFSET = 100.000347;

/// A server whose clock is ahead of ours.
class AheadAdaptor final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    AheadAdaptor(mqtt::MqttClient& client, Uuid const& id, double ahead)
        : mqtt::SynchronizedTimeBaseMqttAdaptor(client, "bench", id), ahead_(ahead) {}
    ~AheadAdaptor() override { release(); }

    double localTimeBase() const override {
        using Seconds = std::chrono::duration<double>;
        Seconds const now = std::chrono::steady_clock::now().time_since_epoch();
        return std::floor((now.count() + ahead_) * 1000.0) / 1000.0;
    }

private:
    double const ahead_;
};

void awaitConnection(mqtt::MqttClient const& client) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (client.communicationState() != conv::ComState::CONNECTED) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("no connection to the broker");
        }
        std::this_thread::yield();
    }
}

struct Run {
    double error;    ///< milliseconds
    double duration; ///< milliseconds
};

Run synchronizeOnce(bench::BrokerProcess const& broker, unsigned run) {
    Uuid const server(1000 + run);
    mqtt::MqttClient serversClient(server, false, "server", "127.0.0.1", broker.port(), true);
    mqtt::MqttClient client(Uuid(run + 1), false, "client", "127.0.0.1", broker.port(), true);
    awaitConnection(serversClient);
    awaitConnection(client);
    double const ahead = FIRST_OFFSET + run * NEXT_OFFSET;
    AheadAdaptor const adaptor(serversClient, server, ahead);
    // Requests must not be faster than the server's subscription: this is acknowledged after it.
    serversClient.publishWait("bench/ready", "", 1, false, 10);
    mqtt::SynchronizedTimeBaseMqttProxy proxy(client, "bench", Uuid(run + 1), nullptr);
    auto const start = std::chrono::steady_clock::now();
    if (!proxy.synchronize(server, 30)) {
        throw std::runtime_error("no synchronisation in 30 seconds");
    }
    std::chrono::duration<double, std::milli> const duration =
        std::chrono::steady_clock::now() - start;
    return {(proxy.offset() + ahead) * 1000.0, duration.count()};
}

void measure(bench::BrokerProcess::Variant variant) {
    bench::BrokerProcess const broker(variant);
    std::printf(
        "Broker: %s, %s\n\n| run | error of the estimate | synchronised in |\n|---|---|---|\n",
        bench::BrokerProcess::version().c_str(), bench::BrokerProcess::describe(variant));
    std::vector<double> errors;
    std::vector<double> durations;
    for (unsigned run = 0; run < RUNS; ++run) {
        Run const result = synchronizeOnce(broker, run);
        std::printf("| %u | %+.3f ms | %.2f ms |\n", run + 1, result.error, result.duration);
        errors.push_back(std::abs(result.error));
        durations.push_back(result.duration);
    }
    std::printf("\nError of the estimate: median %.3f ms, worst %.3f ms; synchronised in %.2f ms "
                "(median)\n",
                bench::summarize(errors).median, bench::summarize(errors).highest,
                bench::summarize(durations).median);
}

} // namespace

int main(int argc, char** argv) try {
    auto variant = bench::BrokerProcess::Variant::SHIPPED;
    if (argc == 2 && std::string(argv[1]) == "--nodelay") {
        variant = bench::BrokerProcess::Variant::NODELAY;
    } else if (argc > 1) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    mosqpp::lib_init();
    measure(variant);
    mosqpp::lib_cleanup();
    return 0;
} catch (std::exception const& error) {
    std::fprintf(stderr, "bench-time-base: %s\n", error.what());
    return 1;
}
