#include "support/port_lease.hpp"

#include "support/socket.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::PortLease;

TEST(APortLease, IsNeverGivenTwiceAtATime) {
    std::vector<PortLease> leases(50);
    std::set<int> ports;
    for (PortLease const& lease : leases) {
        ports.insert(lease.port());
    }
    EXPECT_EQ(ports.size(), leases.size());
}

TEST(APortLease, LiesOutsideThePortsOfOutgoingConnections) {
    int low = 32768;
    int high = 60999;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> low >> high;
    PortLease const lease;
    EXPECT_TRUE(lease.port() < low || lease.port() > high) << lease.port();
}

TEST(APortLease, IsForAPortWhereNobodyListens) {
    PortLease const lease;
    EXPECT_FALSE(support::connectTo(lease.port()).valid());
}

TEST(APortLease, CanBeListenedOnAgainAndAgain) {
    PortLease const lease;
    for (int i = 0; i < 20; ++i) {
        auto const listener = support::listenOn(lease.port(), 1);
        EXPECT_TRUE(support::connectTo(lease.port()).valid());
        EXPECT_FALSE(support::canBind(lease.port()));
    }
}

TEST(APortLease, OfAPortOfOnesChoiceIsForThatPort) {
    int const port = PortLease().port();
    PortLease const lease(port);
    EXPECT_EQ(lease.port(), port);
}

TEST(APortLease, SaysSoWhenAStrangerHasThePort) {
    int const port = PortLease().port();
    auto const stranger = support::listenOn(port, 1);
    try {
        PortLease const lease(port);
        FAIL() << "got a port that is taken";
    } catch (std::runtime_error const& error) {
        std::string const expected = "Port " + std::to_string(port) + " of the loopback address";
        EXPECT_EQ(std::string(error.what()).substr(0, expected.size()), expected);
    }
}

TEST(APortLease, OfAPortOfOnesChoiceWaitsForAnotherTest) {
    auto first = std::make_unique<PortLease>();
    std::atomic<bool> released{false};
    std::thread second([&, port = first->port()] {
        PortLease const lease(port);
        EXPECT_TRUE(released);
    });
    released = true;
    first.reset();
    second.join();
}

} // namespace
