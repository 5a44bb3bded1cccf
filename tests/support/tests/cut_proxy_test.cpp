#include "support/cut_proxy.hpp"

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/socket.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

using support::CutProxy;
using support::RawPeer;
using Direction = CutProxy::Direction;

enum class End { ORDERLY, RESET, OTHER, NOT_YET };

/// How the connection ends; OTHER too when more bytes come.
End endOf(support::FileDescriptor const& socket) {
    End end = End::NOT_YET;
    support::eventually([&] {
        char byte = 0;
        ssize_t const n = ::recv(socket.get(), &byte, 1, MSG_DONTWAIT);
        end = n > 0                 ? End::OTHER
              : n == 0              ? End::ORDERLY
              : errno == EAGAIN     ? End::NOT_YET
              : errno == ECONNRESET ? End::RESET
                                    : End::OTHER;
        return end != End::NOT_YET;
    });
    return end;
}

/// A connection through the proxy with both ends in the test's hands.
class ACutProxy : public testing::Test {
protected:
    void connect() {
        client_ = support::connectTo(proxy_.port());
        ASSERT_TRUE(client_.valid());
        ASSERT_TRUE(support::eventually([this] {
            server_ = support::acceptFrom(listener_);
            return server_.valid();
        }));
    }

    static std::string receive(support::FileDescriptor const& socket, std::size_t count) {
        std::string bytes(count, ' ');
        std::size_t got = 0;
        support::eventually([&] {
            ssize_t const n = ::recv(socket.get(), bytes.data() + got, count - got, MSG_DONTWAIT);
            got += n > 0 ? static_cast<std::size_t>(n) : 0;
            return got == count || n == 0 || (n < 0 && errno != EAGAIN);
        });
        return bytes.substr(0, got);
    }

    support::PortLease lease_;
    support::FileDescriptor listener_ = support::listenOn(lease_.port(), 8);
    CutProxy proxy_{lease_.port()};
    support::FileDescriptor client_;
    support::FileDescriptor server_;
};

TEST_F(ACutProxy, ForwardsBothWaysAndCounts) {
    connect();
    support::sendAll(client_, "to the server");
    EXPECT_EQ(receive(server_, 13), "to the server");
    support::sendAll(server_, "back");
    EXPECT_EQ(receive(client_, 4), "back");
    EXPECT_TRUE(proxy_.waitForBytes(Direction::TO_SERVER, 13));
    EXPECT_TRUE(proxy_.waitForBytes(Direction::TO_CLIENT, 4));
    EXPECT_EQ(proxy_.connections(), 1);
    EXPECT_EQ(proxy_.cuts(), 0);
}

TEST_F(ACutProxy, PassesOnTheEndOfAConnection) {
    connect();
    support::sendAll(client_, "last words");
    client_.reset();
    EXPECT_EQ(receive(server_, 11), "last words");
    EXPECT_EQ(endOf(server_), End::ORDERLY);
    EXPECT_EQ(proxy_.cuts(), 0);
}

TEST_F(ACutProxy, CutsTheNextConnectionAfterThatManyBytesToTheServer) {
    proxy_.cutNextAfter(Direction::TO_SERVER, 5);
    connect();
    support::sendAll(client_, "to ");
    support::sendAll(client_, "the server");
    EXPECT_EQ(receive(server_, 13), "to th");
    EXPECT_EQ(endOf(client_), End::RESET);
    EXPECT_EQ(endOf(server_), End::ORDERLY);
    EXPECT_TRUE(proxy_.waitForCuts(1));
}

TEST_F(ACutProxy, CutsTheNextConnectionAfterThatManyBytesToTheClient) {
    proxy_.cutNextAfter(Direction::TO_CLIENT, 5);
    connect();
    support::sendAll(server_, "to the client");
    EXPECT_EQ(receive(client_, 5), "to th");
    EXPECT_EQ(endOf(client_), End::RESET);
    EXPECT_EQ(endOf(server_), End::RESET); // of what it sent a part was never taken
}

TEST_F(ACutProxy, CutsTheCurrentConnectionCountingFromNow) {
    connect();
    support::sendAll(client_, "before ");
    ASSERT_EQ(receive(server_, 7), "before ");
    proxy_.cutCurrentAfter(Direction::TO_SERVER, 3);
    support::sendAll(client_, "after");
    EXPECT_EQ(receive(server_, 5), "aft");
    EXPECT_EQ(endOf(client_), End::RESET);
}

TEST_F(ACutProxy, CutsSeveralConnectionsInTurnAndSparesTheRest) {
    proxy_.cutNextAfter(Direction::TO_SERVER, 1);
    proxy_.cutNextAfter(Direction::TO_SERVER, 2);
    for (char const* const expected : {"t", "te"}) {
        connect();
        support::sendAll(client_, "text");
        EXPECT_EQ(receive(server_, 4), expected);
        EXPECT_EQ(endOf(client_), End::RESET);
    }
    connect();
    support::sendAll(client_, "text");
    EXPECT_EQ(receive(server_, 4), "text");
    EXPECT_EQ(proxy_.connections(), 3);
    EXPECT_EQ(proxy_.cuts(), 2);
}

TEST_F(ACutProxy, CutsAConnectionBeforeItsFirstByte) {
    proxy_.cutNextAfter(Direction::TO_SERVER, 0);
    connect();
    EXPECT_EQ(endOf(client_), End::RESET);
}

TEST_F(ACutProxy, ResetsEverythingAtOnce) {
    connect();
    proxy_.cutNow();
    EXPECT_EQ(endOf(client_), End::RESET);
    EXPECT_EQ(endOf(server_), End::RESET);
    EXPECT_EQ(proxy_.cuts(), 1);
}

TEST_F(ACutProxy, KeepsBytesBackWhileFrozen) {
    connect();
    proxy_.freeze();
    support::sendAll(client_, "text");
    EXPECT_FALSE(proxy_.waitForBytes(Direction::TO_SERVER, 1, std::chrono::milliseconds(50)));
    proxy_.thaw();
    EXPECT_EQ(receive(server_, 4), "text");
}

TEST_F(ACutProxy, ForwardsMoreThanTheSocketsHold) {
    connect();
    std::string const bytes(20'000'000, 'x');
    std::thread sender([&] { support::sendAll(client_, bytes); });
    EXPECT_EQ(receive(server_, bytes.size()).size(), bytes.size());
    sender.join();
}

TEST(ACutProxyWithoutAServer, ResetsItsClients) {
    support::PortLease const nobody;
    CutProxy proxy(nobody.port());
    auto const client = support::connectTo(proxy.port());
    EXPECT_TRUE(proxy.waitForConnections(1));
    EXPECT_EQ(endOf(client), End::RESET);
}

TEST(ACutProxyBeforeABroker, CutsAHandshakeInTheMiddle) {
    support::Broker broker;
    CutProxy proxy(broker.port());
    RawPeer watcher(broker);
    watcher.subscribe("a");
    RawPeer peer(proxy.host(), proxy.port());
    // CONNACK went by; of PUBREC's four bytes two get through.
    proxy.cutCurrentAfter(Direction::TO_CLIENT, 2);
    peer.post("a", "b", 2);
    EXPECT_TRUE(peer.waitForConnectionLoss());
    EXPECT_EQ(proxy.cuts(), 1);
    EXPECT_FALSE(watcher.waitForMessages(1, std::chrono::milliseconds(50)));
}

} // namespace
