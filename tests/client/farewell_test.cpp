#include "client/socket/farewell.hpp"

#include "support/file_descriptor.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <sys/socket.h>
#include <thread>

namespace {

using mqtt::Farewell;
using support::FileDescriptor;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::hours FAR_AWAY{1};
constexpr std::chrono::milliseconds A_MOMENT{50};

/// A connection that the broker library closes, as far as we are concerned, and its peer.
class AFarewell : public testing::Test {
protected:
    AFarewell() {
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

TEST_F(AFarewell, WaitsUntilThePeerHasReadTheLastPacketAndClosed) {
    Farewell const farewell(near.get());
    ASSERT_EQ(::send(near.get(), "bye", 3, 0), 3);
    near.reset();
    ASSERT_EQ(::send(peer.get(), "one more", 8, MSG_NOSIGNAL), 8);
    std::atomic<bool> closed{false};
    std::thread reader([&] {
        EXPECT_EQ(readByPeer(), "bye");
        closed = true;
        peer.reset();
    });
    farewell.waitForPeer(Clock::now() + FAR_AWAY);
    EXPECT_TRUE(closed);
    reader.join();
}

TEST_F(AFarewell, EndsWithAConnectionThatBreaks) {
    Farewell const farewell(near.get());
    ASSERT_EQ(::send(near.get(), "bye", 3, 0), 3);
    peer.reset(); // with input unread
    farewell.waitForPeer(Clock::now() + FAR_AWAY);
}

TEST_F(AFarewell, GivesUpOnAPeerThatSaysNothing) {
    auto const deadline = Clock::now() + A_MOMENT;
    Farewell(near.get()).waitForPeer(deadline);
    // The wait itself counts whole milliseconds.
    EXPECT_GE(Clock::now(), deadline - std::chrono::milliseconds(1));
    EXPECT_EQ(readByPeer(), "") << "it has been told that nothing more comes";
}

TEST_F(AFarewell, DoesNotBeginToWaitBehindItsDeadline) {
    Farewell(near.get()).waitForPeer(Clock::now() - std::chrono::seconds(1));
    EXPECT_EQ(readByPeer(), "");
}

TEST_F(AFarewell, GivesUpOnAPeerThatNeverStopsTalking) {
    std::atomic<bool> enough{false};
    std::thread talker([&] {
        while (!enough) {
            static_cast<void>(::send(peer.get(), "and", 3, MSG_NOSIGNAL | MSG_DONTWAIT));
        }
    });
    Farewell(near.get()).waitForPeer(Clock::now() + A_MOMENT);
    enough = true;
    talker.join();
}

TEST(AFarewellWithoutAConnection, HasNothingToWaitFor) {
    Farewell(-1).waitForPeer(Clock::now() + FAR_AWAY);
}

} // namespace
