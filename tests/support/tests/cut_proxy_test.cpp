#include "support/cut_proxy.hpp"

#include "support/socket.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

using support::CutProxy;
using support::FileDescriptor;
using Direction = CutProxy::Direction;

/// A connection through the proxy, both ends of which the test holds.
class ACutProxy : public testing::Test {
protected:
    void connect() {
        client_ = support::connectTo(proxy_.port());
        ASSERT_TRUE(support::eventually([this] {
            server_ = support::acceptFrom(listener_);
            return server_.valid();
        }));
    }

    /// The next so many bytes, fewer when the connection ends.
    static std::string receive(FileDescriptor const& socket, std::size_t count) {
        std::string bytes(count, ' ');
        fcntl(socket.get(), F_SETFL, 0); // it waits
        ssize_t const received = ::recv(socket.get(), bytes.data(), count, MSG_WAITALL);
        return bytes.substr(0, static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
    }
    static void expectReset(FileDescriptor const& socket) {
        char byte = 0;
        EXPECT_EQ(::recv(socket.get(), &byte, 1, 0), -1);
        EXPECT_EQ(errno, ECONNRESET);
    }

    support::PortLease lease_;
    FileDescriptor listener_ = support::listenOn(lease_.port(), 8);
    CutProxy proxy_{lease_.port()};
    FileDescriptor client_;
    FileDescriptor server_;
};

TEST_F(ACutProxy, ForwardsBothWaysMoreThanTheSocketsHoldAndTheEndOfTheConnection) {
    connect();
    std::string const bytes(20'000'000, 'x');
    std::thread sender([&] { support::sendAll(client_, bytes); });
    EXPECT_TRUE(receive(server_, bytes.size()) == bytes);
    sender.join();
    support::sendAll(server_, "back");
    EXPECT_EQ(receive(client_, 4), "back");
    client_.reset();
    EXPECT_EQ(receive(server_, 1), "");
    EXPECT_EQ(proxy_.cuts(), 0);
}

TEST_F(ACutProxy, CutsConnectionsAfterThatManyBytes) {
    proxy_.cutNextAfter(Direction::TO_SERVER, 5);
    proxy_.cutNextAfter(Direction::TO_CLIENT, 5);
    connect();
    support::sendAll(client_, "to the server");
    EXPECT_EQ(receive(server_, 13), "to th");
    expectReset(client_);
    connect();
    support::sendAll(server_, "to the client");
    EXPECT_EQ(receive(client_, 5), "to th");
    expectReset(client_);
    connect();
    support::sendAll(client_, "before ");
    ASSERT_EQ(receive(server_, 7), "before ");
    proxy_.cutCurrentAfter(Direction::TO_SERVER, 3);
    support::sendAll(client_, "after");
    EXPECT_EQ(receive(server_, 5), "aft");
    EXPECT_EQ(proxy_.cuts(), 3);
    EXPECT_EQ(proxy_.connections(), 3);
}

TEST_F(ACutProxy, ForwardsNothingWhileFrozenAndResetsAllConnectionsAtOnce) {
    connect();
    proxy_.freeze();
    support::sendAll(client_, "text");
    pollfd readable{server_.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, 50), 0);
    proxy_.thaw();
    EXPECT_EQ(receive(server_, 4), "text");
    proxy_.cutNow();
    expectReset(client_);
    expectReset(server_);
    EXPECT_EQ(proxy_.cuts(), 1);
}

} // namespace
