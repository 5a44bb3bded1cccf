#include "mqtt/test/cut_proxy.hpp"

#include "mqtt/test/eventually.hpp"
#include "mqtt/test/port_lease.hpp"
#include "net/socket.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

using mqtt::test::CutProxy;
using mqtt::test::FileDescriptor;
using mqtt::test::sendAll;
using Direction = CutProxy::Direction;

/// A connection through the proxy, both ends of which the test holds.
class ACutProxy : public testing::Test {
protected:
    void connect() {
        client_ = mqtt::test::connectTo(proxy_.port());
        ASSERT_TRUE(mqtt::test::eventually([this] {
            server_ = mqtt::test::acceptFrom(listener_);
            return server_.valid();
        }));
        fcntl(server_.get(), F_SETFL, 0); // it waits
    }

    /// The next so many bytes, fewer when the connection ends.
    static std::string receive(FileDescriptor const& socket, std::size_t count) {
        std::string bytes(count, ' ');
        ssize_t const received = ::recv(socket.get(), bytes.data(), count, MSG_WAITALL);
        return received < 0 ? "reset" : bytes.substr(0, static_cast<std::size_t>(received));
    }

    mqtt::test::PortLease lease_;
    FileDescriptor listener_ = mqtt::test::listenOn(lease_.port(), 8);
    CutProxy proxy_{lease_.port()};
    FileDescriptor client_;
    FileDescriptor server_;
};

TEST_F(ACutProxy, CutsConnectionsAfterThatManyBytes) {
    proxy_.cutNextAfter(Direction::TO_SERVER, 5);
    proxy_.cutNextAfter(Direction::TO_CLIENT, 5);
    connect();
    sendAll(client_, "to the server");
    EXPECT_EQ(receive(server_, 13), "to th");
    EXPECT_EQ(receive(client_, 1), "reset");
    connect();
    sendAll(server_, "to the client");
    EXPECT_EQ(receive(client_, 5), "to th");
    EXPECT_EQ(receive(client_, 1), "reset");
    connect();
    sendAll(client_, "before ");
    ASSERT_EQ(receive(server_, 7), "before ");
    proxy_.cutCurrentAfter(Direction::TO_SERVER, 3);
    sendAll(client_, "after");
    EXPECT_EQ(receive(server_, 5), "aft");
    EXPECT_EQ(proxy_.cuts(), 3);
}

TEST_F(ACutProxy, ForwardsNothingWhileFrozenAndResetsAllConnectionsAtOnce) {
    connect();
    proxy_.freeze();
    sendAll(client_, "text");
    pollfd readable{server_.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, 50), 0);
    proxy_.thaw();
    EXPECT_EQ(receive(server_, 4), "text");
    proxy_.cutNow();
    EXPECT_EQ(receive(client_, 1), "reset");
    EXPECT_EQ(receive(server_, 1), "reset");
}

TEST_F(ACutProxy, RefusesConnectionsUntilItAcceptsThem) {
    connect();
    proxy_.refuse();
    EXPECT_EQ(receive(client_, 1), "reset");
    client_ = mqtt::test::connectTo(proxy_.port());
    EXPECT_EQ(receive(client_, 1), "reset");
    proxy_.accept();
    connect();
    sendAll(client_, "text");
    EXPECT_EQ(receive(server_, 4), "text");
    EXPECT_EQ(proxy_.connections(), 3);
    EXPECT_EQ(proxy_.cuts(), 2);
}

} // namespace
