#include "mqtt/client.hpp"

#include "client/backoff.hpp"
#include "support/broker.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// When this process tried to connect, and to which port.
support::Watched<std::vector<std::pair<int, Clock::time_point>>> attempts;

void noteAttempt(sockaddr const* address) {
    if (address->sa_family != AF_INET) {
        return;
    }
    sockaddr_in internet{};
    std::memcpy(&internet, address, sizeof internet);
    int const port = ntohs(internet.sin_port);
    attempts.change([&](auto& all) { all.emplace_back(port, Clock::now()); });
}

} // namespace

// No other way shows attempts at a port without a listener.
extern "C" __attribute__((visibility("default"))) int connect(int fd, sockaddr const* address,
                                                              socklen_t length) {
    using Connect = int (*)(int, sockaddr const*, socklen_t);
    static auto const original = reinterpret_cast<Connect>(::dlsym(RTLD_NEXT, "connect"));
    noteAttempt(address);
    return original(fd, address, length);
}

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::PortLease;
using Error = MqttClient::Error;

std::vector<Clock::time_point> attemptsAt(int port) {
    std::vector<Clock::time_point> times;
    for (auto const& [at, time] : attempts.copy()) {
        if (at == port) {
            times.push_back(time);
        }
    }
    return times;
}

TEST(AReconnectingClient, TriesAgainAfterAGrowingDelay) {
    mqtt::resetReconnectAttempts();
    PortLease const port;
    MqttClient const client(support::uniqueId(), false, "", "127.0.0.1", port.port(), true);
    ASSERT_TRUE(support::eventually([&] { return attemptsAt(port.port()).size() >= 4; }));
    auto const times = attemptsAt(port.port());
    for (std::size_t n = 1; n <= 3; ++n) {
        // No upper bound: a busy machine may wake the worker late.
        EXPECT_GE(times[n] - times[n - 1], mqtt::reconnectDelay(static_cast<int>(n)));
    }
}

TEST(AReconnectingClient, FindsTheBrokerItWasLastConnectedToAgainAndAgain) {
    support::StateRecorder states;
    support::Broker broker;
    PortLease const elsewhere;
    MqttClient client(support::uniqueId(), false, "", "127.0.0.1", elsewhere.port(), false);
    ASSERT_EQ(client.connect(broker.host(), broker.port(), 30), Error::SUCCESS);
    client.registerListener(&states);
    for (int i = 0; i < 3; ++i) {
        broker.kill();
        ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST)) << i;
        broker.start();
        ASSERT_TRUE(states.waitFor(ComState::CONNECTED)) << i;
        EXPECT_EQ(client.publishWait("a", "x", 2, false, 30), Error::SUCCESS) << i;
    }
    client.unregisterListener(&states);
}

} // namespace
