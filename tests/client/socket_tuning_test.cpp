#include "client/socket_tuning.hpp"

#include "support/eventually.hpp"
#include "support/file_descriptor.hpp"
#include "support/scripted_server.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <future>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using mqtt::SocketTuning;
using support::FileDescriptor;
using support::ScriptedServer;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

int connectTo(int fd, int port) {
    auto const address = loopback(port);
    return ::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address);
}

int tcpOption(int fd, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    ::getsockopt(fd, IPPROTO_TCP, option, &value, &length);
    return value;
}

int heldBack(int fd) {
    int bytes = -1;
    ::ioctl(fd, SIOCOUTQNSD, &bytes);
    return bytes;
}

/// Two ends of a TCP connection; the far one takes its time to acknowledge.
class ATcpConnection : public testing::Test {
protected:
    void SetUp() override {
        FileDescriptor const listener(::socket(AF_INET, SOCK_STREAM, 0));
        auto address = loopback(0);
        socklen_t length = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        ASSERT_EQ(::bind(listener.get(), any, length), 0);
        ASSERT_EQ(::listen(listener.get(), 1), 0);
        ASSERT_EQ(::getsockname(listener.get(), any, &length), 0);
        ASSERT_EQ(connectTo(near.get(), ntohs(address.sin_port)), 0);
        far = FileDescriptor(::accept(listener.get(), nullptr, nullptr));
        int const off = 0;
        ASSERT_EQ(::setsockopt(far.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off), 0);
    }

    /// Sends small pieces until one is held back for want of an acknowledgement.
    bool getsHeldBack() {
        return support::eventually(
            [this] { return ::send(near.get(), "x", 1, 0) == 1 && heldBack(near.get()) > 0; });
    }

    /// A question with two answers, the second of which the far end holds back. Returns whether
    /// the first one was acknowledged by the step that read it.
    bool acknowledgesWhatIsRead() {
        char bytes[10];
        int const off = 0;
        ::send(near.get(), "?", 1, 0);
        ::recv(far.get(), bytes, sizeof bytes, 0);
        tuning.stepped(near.get(), false);
        ::setsockopt(near.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
        ::send(far.get(), "a", 1, 0);
        ::recv(near.get(), bytes, sizeof bytes, 0);
        tuning.stepped(near.get(), false);
        bool const acknowledged = tcpOption(near.get(), TCP_QUICKACK) == 1;
        ::send(far.get(), "b", 1, 0);
        pollfd readable{near.get(), POLLIN, 0};
        while (::poll(&readable, 1, static_cast<int>(tuning.patience().count())) == 0)
            tuning.stepped(near.get(), false);
        ::recv(near.get(), bytes, sizeof bytes, 0);
        tuning.stepped(near.get(), false);
        return acknowledged;
    }

    FileDescriptor near{::socket(AF_INET, SOCK_STREAM, 0)};
    FileDescriptor far;
    SocketTuning tuning;
};

TEST_F(ATcpConnection, IsInheritedByNoChildProcess) {
    tuning.connected(near.get());
    EXPECT_NE(::fcntl(near.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ATcpConnection, HoldsNothingBackAfterAStepThatLeavesNothingToWrite) {
    tuning.connected(near.get());
    ASSERT_TRUE(getsHeldBack());
    tuning.stepped(near.get(), false);
    EXPECT_EQ(heldBack(near.get()), 0);
    EXPECT_EQ(tcpOption(near.get(), TCP_NODELAY), 0) << "and only this once";
}

TEST_F(ATcpConnection, AcknowledgesAtOnceAfterAStepThatLeavesNothingToDoIfThePeerWaits) {
    tuning.connected(near.get());
    ASSERT_TRUE(support::eventually([this] { return acknowledgesWhatIsRead(); }));
    int const off = 0;
    ::setsockopt(near.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
    tuning.stepped(near.get(), true);
    EXPECT_EQ(tcpOption(near.get(), TCP_QUICKACK), 0) << "the next packet carries it along";
    tuning.stepped(near.get(), false);
    EXPECT_EQ(tcpOption(near.get(), TCP_QUICKACK), 1);
}

TEST_F(ATcpConnection, LeavesTheAcknowledgementToTheStepThatReadsTheRest) {
    tuning.connected(near.get());
    ASSERT_TRUE(support::eventually([this] { return acknowledgesWhatIsRead(); }));
    ASSERT_EQ(::send(far.get(), "x", 1, 0), 1);
    int waiting = 0;
    ASSERT_TRUE(support::eventually(
        [&] { return ::ioctl(near.get(), FIONREAD, &waiting) == 0 && waiting > 0; }));
    int const off = 0;
    ::setsockopt(near.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
    tuning.stepped(near.get(), false);
    EXPECT_EQ(tcpOption(near.get(), TCP_QUICKACK), 0);
}

TEST_F(ATcpConnection, IsNotBrokenAsAConnectWouldBe) {
    mqtt::abortConnect(near.get());
    EXPECT_EQ(::send(near.get(), "x", 1, 0), 1);
    char byte = 0;
    EXPECT_EQ(::recv(far.get(), &byte, 1, 0), 1);
}

TEST(ATcpConnect, ThatWaitsForAnAnswerIsBroken) {
    ScriptedServer const server(ScriptedServer::Mode::DEAF);
    FileDescriptor const socket(::socket(AF_INET, SOCK_STREAM, 0));
    auto connecting =
        std::async(std::launch::async, [&] { return connectTo(socket.get(), server.port()); });
    EXPECT_TRUE(support::eventually([&] {
        mqtt::abortConnect(socket.get());
        return connecting.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    EXPECT_NE(connecting.get(), 0);
}

TEST(NoSocket, IsLeftAlone) {
    SocketTuning tuning;
    tuning.connected(-1);
    tuning.stepped(-1, false);
    mqtt::abortConnect(-1);
}

} // namespace
