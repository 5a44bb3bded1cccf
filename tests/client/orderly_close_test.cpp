#include "client/socket/orderly_close.hpp"

#include "net/file_descriptor.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

using mqtt::OrderlyClose;
using mqtt::test::FileDescriptor;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::hours LONG_TIME{1};
constexpr std::chrono::milliseconds SHORT_TIME{50};

/// A connection and its peer; the test closes our descriptor as the broker library does.
class AnOrderlyClose : public testing::Test {
protected:
    AnOrderlyClose() {
        std::array<int, 2> both{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, both.data()), 0);
        near.reset(both[0]);
        peer.reset(both[1]);
    }

    /// What the peer can still read, to the end.
    std::string readByPeer() const {
        std::string all;
        std::array<char, 64> piece{};
        for (ssize_t count = 0; (count = ::recv(peer.get(), piece.data(), piece.size(), 0)) > 0;) {
            all.append(piece.data(), static_cast<std::size_t>(count));
        }
        return all;
    }

    FileDescriptor near;
    FileDescriptor peer;
};

TEST_F(AnOrderlyClose, WaitsUntilThePeerHasReadTheLastPacketAndClosed) {
    OrderlyClose const close(near.get());
    ASSERT_EQ(::send(near.get(), "bye", 3, 0), 3);
    near.reset();
    ASSERT_EQ(::send(peer.get(), "one more", 8, MSG_NOSIGNAL), 8);
    std::atomic<bool> closed{false};
    std::thread reader([&] {
        EXPECT_EQ(readByPeer(), "bye");
        closed = true;
        peer.reset();
    });
    close.waitForPeer(Clock::now() + LONG_TIME);
    EXPECT_TRUE(closed);
    reader.join();
}

TEST_F(AnOrderlyClose, EndsAtOnceWhenTheConnectionBreaksAndWithoutOne) {
    OrderlyClose const close(near.get());
    ASSERT_EQ(::send(near.get(), "bye", 3, 0), 3);
    peer.reset(); // with unread input
    close.waitForPeer(Clock::now() + LONG_TIME);
    OrderlyClose(-1).waitForPeer(Clock::now() + LONG_TIME);
}

TEST_F(AnOrderlyClose, GivesUpOnAPeerThatSendsNothing) {
    for (auto const timeout : {SHORT_TIME, -SHORT_TIME}) {
        auto const deadline = Clock::now() + timeout;
        OrderlyClose(near.get()).waitForPeer(deadline);
        // poll() counts whole milliseconds.
        EXPECT_GE(Clock::now(), deadline - std::chrono::milliseconds(1));
    }
    EXPECT_EQ(readByPeer(), "") << "our side of the connection has ended";
}

TEST_F(AnOrderlyClose, GivesUpOnAPeerThatNeverStopsSending) {
    std::atomic<bool> isDone{false};
    std::thread sender([&] {
        while (!isDone) {
            static_cast<void>(::send(peer.get(), "and", 3, MSG_NOSIGNAL | MSG_DONTWAIT));
        }
    });
    OrderlyClose(near.get()).waitForPeer(Clock::now() + SHORT_TIME);
    isDone = true;
    sender.join();
}

TEST_F(AnOrderlyClose, WaitsForOutputUntilThePeerReads) {
    std::string const block(65536, 'x');
    std::size_t written = 0;
    for (ssize_t count = 0; count >= 0;) {
        written += static_cast<std::size_t>(count);
        count = ::send(near.get(), block.data(), block.size(), MSG_DONTWAIT);
    }
    auto const before = Clock::now();
    mqtt::waitForOutput(near.get()); // in vain, but not for ever
    EXPECT_GE(Clock::now() - before, SHORT_TIME);
    EXPECT_EQ(::send(near.get(), "x", 1, MSG_DONTWAIT), -1);
    std::thread reader([&] {
        std::vector<char> buffer(written);
        EXPECT_EQ(::recv(peer.get(), buffer.data(), written, MSG_WAITALL),
                  static_cast<ssize_t>(written));
    });
    while (::send(near.get(), "x", 1, MSG_DONTWAIT) < 0) {
        mqtt::waitForOutput(near.get());
    }
    reader.join();
}

TEST_F(AnOrderlyClose, KnowsWhetherOurSideHasEnded) {
    EXPECT_FALSE(mqtt::isShutDown(near.get()));
    ASSERT_EQ(::shutdown(near.get(), SHUT_WR), 0);
    EXPECT_TRUE(mqtt::isShutDown(near.get()));
    EXPECT_FALSE(mqtt::isShutDown(-1));
}

TEST_F(AnOrderlyClose, KeepsAConnectionWhoseOtherDescriptorMeansTheEndOfInput) {
    ASSERT_EQ(::send(peer.get(), "unread", 6, 0), 6);
    OrderlyClose const close(near.get());
    mqtt::replaceByEndOfInput(near.get());
    char byte = 0;
    EXPECT_EQ(::recv(near.get(), &byte, 1, MSG_DONTWAIT), 0);
    near.reset();
    EXPECT_EQ(::send(peer.get(), "more", 4, MSG_NOSIGNAL), 4) << "the connection is closed";
}

} // namespace
