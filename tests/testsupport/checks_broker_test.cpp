// The checks look at localhost:1883 and nowhere else. Where that port is taken these tests fail.

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/watchdog.hpp"
#include "testsupport/checks_frame.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <stdexcept>
#include <string>

namespace {

using mqtt::TestCounter;

constexpr int PORT = 1883;

/// "localhost" may be ::1 before it is 127.0.0.1.
bool isTakenOnIpv6() {
    support::FileDescriptor const socket(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(PORT);
    address.sin6_addr = in6addr_loopback;
    return socket.valid()
           && connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

/// Holds the port; other tests of ours that have it are waited for.
support::PortLease leaseOfThePort() {
    support::Watchdog::limit(std::chrono::minutes(30));
    support::PortLease lease(PORT);
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

class ACheckOnABroker : public testing::Test {
protected:
    ACheckOnABroker() { support::Watchdog::limit(std::chrono::minutes(1)); }

    support::Broker broker{onThePort()};
    support::RawPeer peer{"localhost", PORT};
    TestCounter counter;
};

/// Whether the topic stands somewhere in the expected text, before its last line.
bool isWithTopic(std::string const& text, std::string const& expected, std::string const& topic) {
    auto const lastLine = expected.rfind('\n', expected.size() - 2) + 1;
    for (std::size_t at = 0; at <= lastLine; ++at) {
        if (text == std::string(expected).insert(at, topic)) {
            return true;
        }
    }
    return false;
}

TEST_F(ACheckOnABroker, FindsATopicClean) {
    peer.publish("a/b", "not retained");
    auto const checked = Checked([&] { mqtt::testTopicClean("a/b", counter); });
    EXPECT_TRUE(checked.passed);
    EXPECT_EQ(checked.text, startOf(cleanSubject("a/b")) + successOf(cleanSubject("a/b")));
    EXPECT_EQ(counter, (TestCounter{1, 1, 0}));
}

TEST_F(ACheckOnABroker, FindsARetainedMessage) {
    peer.publish("stale/topic", "x", 2, true);
    for (std::string const pattern : {"stale/topic", "stale/#"}) {
        counter = TestCounter();
        auto const checked = Checked([&] { mqtt::testTopicClean(pattern, counter); });
        EXPECT_FALSE(checked.passed);
        // It may be quicker than the line that says that the check has begun.
        EXPECT_TRUE(isWithTopic(checked.text,
                                startOf(cleanSubject(pattern)) + failureOf(cleanSubject(pattern)),
                                "stale/topic"))
            << checked.text;
        EXPECT_EQ(counter, (TestCounter{1, 0, 1}));
    }
}

TEST_F(ACheckOnABroker, FindsALink) {
    peer.publish("links", linksText({"a/b", "c"}), 2, true);
    auto const checked =
        Checked([&] { mqtt::testLinkInCollection("c", "links", "c is there", counter); });
    EXPECT_TRUE(checked.passed);
    EXPECT_EQ(checked.text, startOf("c is there") + successOf("c is there"));
    EXPECT_EQ(counter, (TestCounter{1, 1, 0}));
}

TEST_F(ACheckOnABroker, FindsNoLinkThatIsNotThere) {
    peer.publish("links", linksText({"a/b/c", "a"}), 2, true);
    auto const checked =
        Checked([&] { mqtt::testLinkInCollection("a/b", "links", "a/b is there", counter); });
    EXPECT_FALSE(checked.passed);
    EXPECT_EQ(checked.text, startOf("a/b is there") + failureOf("a/b is there"));
    EXPECT_EQ(counter, (TestCounter{1, 0, 1}));
}

TEST(ACheckWithoutABroker, FindsEveryTopicCleanAndNoLink) {
    auto const lease = leaseOfThePort();
    support::Watchdog::limit(std::chrono::minutes(1));
    TestCounter counter;
    EXPECT_TRUE(Checked([&] { mqtt::testTopicClean("a", counter); }).passed);
    EXPECT_FALSE(Checked([&] { mqtt::testLinkInCollection("a", "links", "no", counter); }).passed);
    EXPECT_EQ(counter, (TestCounter{2, 1, 1}));
}

} // namespace
