#include "support/port_lease.hpp"

#include "support/socket.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
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

} // namespace
