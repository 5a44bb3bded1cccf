// The checks connect to localhost:1883 only. These tests fail when another program has that port.

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/watchdog.hpp"
#include "testsupport/checks_fixture.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <stdexcept>
#include <string>

namespace {

using mqtt::TestCounter;

constexpr int PORT = 1883;

/// "localhost" may be resolved to ::1 before 127.0.0.1.
bool isTakenOnIpv6() {
    support::FileDescriptor const socket(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(PORT);
    address.sin6_addr = in6addr_loopback;
    return socket.valid()
           && connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

/// Holds the port; waits while another test of ours has it.
support::PortLease leaseOfThePort() {
    support::Watchdog::limit(std::chrono::minutes(30));
    support::PortLease lease(PORT);
    support::Watchdog::limit(std::chrono::minutes(1));
    if (isTakenOnIpv6()) {
        throw std::runtime_error("Port 1883 of ::1 is taken by another program. This test needs"
                                 " it free: stop the program, and try again.");
    }
    return lease;
}

support::BrokerOptions onThePort() {
    leaseOfThePort();
    support::BrokerOptions options;
    options.nodelay = true;
    options.port = PORT;
    return options;
}

TEST(ACheckOnABroker, FindsCleanTopicsRetainedMessagesAndLinks) {
    support::Broker const broker{onThePort()};
    support::RawPeer peer{"localhost", PORT};
    peer.publish("a/b", "not retained");
    peer.publish("stale/topic", "x", 2, true);
    peer.publish("links", listOf({"a/b", "c"}), 2, true);

    TestCounter counter;
    EXPECT_TRUE(CheckResult([&] { mqtt::testTopicClean("a/b", counter); }).passed);
    for (std::string const pattern : {"stale/topic", "stale/#"}) {
        EXPECT_FALSE(CheckResult([&] { mqtt::testTopicClean(pattern, counter); }).passed);
    }
    EXPECT_TRUE(
        CheckResult([&] { mqtt::testLinkInCollection("c", "links", "text", counter); }).passed);
    EXPECT_EQ(counter, (TestCounter{4, 2, 2}));
}

TEST(ACheckWithoutABroker, FindsEveryTopicCleanAndNoLink) {
    auto const lease = leaseOfThePort();
    TestCounter counter;
    EXPECT_TRUE(CheckResult([&] { mqtt::testTopicClean("a", counter); }).passed);
    EXPECT_FALSE(
        CheckResult([&] { mqtt::testLinkInCollection("a", "links", "no", counter); }).passed);
    EXPECT_EQ(counter, (TestCounter{2, 1, 1}));
}

} // namespace
