#include "client/socket/socket_tuning.hpp"

#include "support/eventually.hpp"
#include "support/file_descriptor.hpp"
#include "support/socket.hpp"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using mqtt::SocketTuning;
using support::FileDescriptor;

int tcpOption(int fd, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    ::getsockopt(fd, IPPROTO_TCP, option, &value, &length);
    return value;
}

/// Two ends of a TCP connection; the far one takes its time to acknowledge.
class ATcpConnection : public testing::Test {
protected:
    void SetUp() override {
        int const off = 0;
        ASSERT_EQ(::setsockopt(far.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off), 0);
    }

    /// Takes acknowledging at once back, as the kernel does when it likes.
    void putOffAcknowledging() {
        int const off = 0;
        ::setsockopt(near.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
    }

    bool acknowledgesAtOnce() const { return tcpOption(near.get(), TCP_QUICKACK) == 1; }

    bool findsOutThatThePeerWaits() {
        tuning.connected(near.get());
        return support::eventually([this] { return acknowledgesWhatIsRead(); });
    }

    /// A question with two answers, the second of which the far end holds back. Returns whether
    /// the first one was acknowledged by the step that read it.
    bool acknowledgesWhatIsRead() {
        char bytes[10];
        ::send(near.get(), "?", 1, 0);
        ::recv(far.get(), bytes, sizeof bytes, 0);
        tuning.stepped(near.get(), false);
        putOffAcknowledging();
        ::send(far.get(), "a", 1, 0);
        ::recv(near.get(), bytes, sizeof bytes, 0);
        tuning.stepped(near.get(), false);
        bool const acknowledged = acknowledgesAtOnce();
        ::send(far.get(), "b", 1, 0);
        pollfd readable{near.get(), POLLIN, 0};
        while (::poll(&readable, 1, static_cast<int>(tuning.patience().count())) == 0) {
            tuning.stepped(near.get(), false);
        }
        ::recv(near.get(), bytes, sizeof bytes, 0);
        tuning.stepped(near.get(), false);
        return acknowledged;
    }

    support::TcpPair pair;
    FileDescriptor& near = pair.near;
    FileDescriptor& far = pair.far;
    SocketTuning tuning;
};

TEST_F(ATcpConnection, IsInheritedByNoChildProcess) {
    tuning.connected(near.get());
    EXPECT_NE(::fcntl(near.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ATcpConnection, AcknowledgesAtOnceAfterAStepThatLeavesNothingToDoIfThePeerWaits) {
    ASSERT_TRUE(findsOutThatThePeerWaits());
    putOffAcknowledging();
    tuning.stepped(near.get(), true);
    EXPECT_FALSE(acknowledgesAtOnce()) << "the next packet carries it along";
    tuning.stepped(near.get(), false);
    EXPECT_TRUE(acknowledgesAtOnce());
}

TEST_F(ATcpConnection, LeavesTheAcknowledgementToTheStepThatReadsTheRest) {
    ASSERT_TRUE(findsOutThatThePeerWaits());
    ASSERT_EQ(::send(far.get(), "x", 1, 0), 1);
    int waiting = 0;
    ASSERT_TRUE(support::eventually(
        [&] { return ::ioctl(near.get(), FIONREAD, &waiting) == 0 && waiting > 0; }));
    putOffAcknowledging();
    tuning.stepped(near.get(), false);
    EXPECT_FALSE(acknowledgesAtOnce());
}

TEST_F(ATcpConnection, AcknowledgesAStreamOnlyWhenItPauses) {
    ASSERT_TRUE(findsOutThatThePeerWaits());
    EXPECT_TRUE(support::eventually([&] {
        putOffAcknowledging();
        for (int i = 0; i < 100; ++i) {
            tuning.received(1);
        }
        tuning.stepped(near.get(), false);
        return !acknowledgesAtOnce();
    })) << "a busy machine may pause in between";
    EXPECT_LT(tuning.patience(), std::chrono::milliseconds(1000)) << "the pause must be noticed";
    EXPECT_TRUE(support::eventually([&] {
        tuning.stepped(near.get(), false);
        return acknowledgesAtOnce();
    }));
    EXPECT_EQ(tuning.patience(), std::chrono::milliseconds(1000));
}

TEST_F(ATcpConnection, AcknowledgesAFastConversationAtOnce) {
    ASSERT_TRUE(findsOutThatThePeerWaits());
    putOffAcknowledging();
    for (int i = 0; i < 100; ++i) {
        tuning.issued();
        for (int k = 0; k < 4; ++k) {
            tuning.received(1);
        }
    }
    tuning.stepped(near.get(), false);
    EXPECT_TRUE(acknowledgesAtOnce());
}

TEST_F(ATcpConnection, AcknowledgesNoMoreThanItsOwnStreamDoes) {
    ASSERT_TRUE(findsOutThatThePeerWaits());
    for (int i = 0; i < 100; ++i) {
        tuning.issued();
    }
    tuning.stepped(near.get(), false);
    putOffAcknowledging();
    tuning.issued();
    tuning.stepped(near.get(), false);
    EXPECT_FALSE(acknowledgesAtOnce()) << "what is sent next carries it along";
    EXPECT_TRUE(support::eventually([&] {
        tuning.stepped(near.get(), false);
        return acknowledgesAtOnce();
    })) << "nothing is sent next";
}

TEST_F(ATcpConnection, IsWaitedForInPeaceWhenAStreamIsOverAndNothingUrgent) {
    tuning.connected(near.get());
    for (int i = 0; i < 1000; ++i) {
        tuning.received(1);
    }
    EXPECT_TRUE(support::eventually([&] {
        tuning.stepped(near.get(), false);
        return tuning.patience() == std::chrono::milliseconds(1000);
    }));
}

TEST_F(ATcpConnection, LeavesNothingToAUnixSocketThatFollowsIt) {
    tuning.connected(near.get());
    for (int i = 0; i < 100; ++i) {
        tuning.issued();
    }
    tuning.stepped(near.get(), false);
    ASSERT_LT(tuning.patience(), std::chrono::milliseconds(1000));
    FileDescriptor const unixSocket(::socket(AF_UNIX, SOCK_STREAM, 0));
    tuning.connected(unixSocket.get());
    tuning.stepped(unixSocket.get(), false);
    EXPECT_EQ(tuning.patience(), std::chrono::milliseconds(1000));
}

/// Two ends of a connection that is not TCP.
class AUnixSocket : public testing::Test {
protected:
    AUnixSocket() {
        std::array<int, 2> both{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, both.data()), 0);
        near.reset(both[0]);
        far.reset(both[1]);
    }

    FileDescriptor near;
    FileDescriptor far;
};

TEST_F(AUnixSocket, IsWaitedForUntilItTakesOutput) {
    std::string const block(65536, 'x');
    std::size_t written = 0;
    for (ssize_t count = 0; count >= 0; written += static_cast<std::size_t>(count)) {
        if ((count = ::send(near.get(), block.data(), block.size(), MSG_DONTWAIT)) < 0) {
            break;
        }
    }
    auto const before = std::chrono::steady_clock::now();
    mqtt::waitForOutput(near.get()); // in vain, but not for ever
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
    EXPECT_EQ(::send(near.get(), "x", 1, MSG_DONTWAIT), -1);
    std::thread reader([&] {
        std::vector<char> buffer(written);
        EXPECT_EQ(::recv(far.get(), buffer.data(), written, MSG_WAITALL),
                  static_cast<ssize_t>(written));
    });
    while (::send(near.get(), "x", 1, MSG_DONTWAIT) < 0) {
        mqtt::waitForOutput(near.get());
    }
    reader.join();
}

TEST(NoSocket, IsLeftAlone) {
    SocketTuning tuning;
    tuning.connected(-1);
    tuning.stepped(-1, false);
}

} // namespace
