#include "support/cut_proxy.hpp"

#include "support/socket.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

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

    /// Up to that many bytes, fewer when the connection ends; `error_` is then 0 or the reason.
    std::string receive(FileDescriptor const& socket, std::size_t count) {
        std::string bytes(count, ' ');
        std::size_t received = 0;
        ssize_t n = 1;
        for (; received < count && n > 0; received += n > 0 ? static_cast<std::size_t>(n) : 0) {
            pollfd readable{socket.get(), POLLIN, 0};
            ::poll(&readable, 1, static_cast<int>(support::DEADLINE.count()));
            n = ::recv(socket.get(), bytes.data() + received, count - received, MSG_DONTWAIT);
        }
        error_ = n < 0 ? errno : 0;
        return bytes.substr(0, received);
    }

    int error_ = 0;
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
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(proxy_.cuts(), 0);
}

TEST_F(ACutProxy, CutsConnectionsAfterThatManyBytes) {
    proxy_.cutNextAfter(Direction::TO_SERVER, 5);
    proxy_.cutNextAfter(Direction::TO_CLIENT, 5);
    connect();
    support::sendAll(client_, "to the server");
    EXPECT_EQ(receive(server_, 13), "to th");
    EXPECT_EQ(receive(client_, 1), "");
    EXPECT_EQ(error_, ECONNRESET);
    connect();
    support::sendAll(server_, "to the client");
    EXPECT_EQ(receive(client_, 13), "to th");
    EXPECT_EQ(error_, ECONNRESET);
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
    for (auto const* const end : {&client_, &server_}) {
        EXPECT_EQ(receive(*end, 1), "");
        EXPECT_EQ(error_, ECONNRESET);
    }
    EXPECT_EQ(proxy_.cuts(), 1);
}

} // namespace
