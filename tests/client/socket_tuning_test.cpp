#include "client/socket/socket_tuning.hpp"

#include "client/sockets.hpp"
#include "mqtt/test/eventually.hpp"
#include "net/file_descriptor.hpp"
#include "net/socket.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

using mqtt::SocketTuning;
using mqtt::test::FileDescriptor;

constexpr std::chrono::milliseconds LONGEST_WAIT{1000};

/// Our end of a TCP connection, tuned for one network step after the other.
class ATcpConnection : public testing::Test {
protected:
    ATcpConnection() { tuning.connected(near.get()); }

    /// Switches acknowledging at once off, as the kernel does at any time.
    void delayAcknowledgements() const { switchOff(near.get(), TCP_QUICKACK); }

    bool acknowledgesAtOnce() const { return isOn(near.get(), TCP_QUICKACK); }

    void step() { tuning.stepped(near.get(), false); }

    bool acknowledgesLater() {
        return mqtt::test::eventually([this] {
            step();
            return acknowledgesAtOnce();
        });
    }

    void issuePackets(int count) {
        for (int i = 0; i < count; ++i) {
            tuning.packetIssued();
        }
    }

    void receiveMessages(int count) {
        for (int i = 0; i < count; ++i) {
            tuning.messageReceived();
        }
    }

    mqtt::test::TcpPair pair;
    FileDescriptor& near = pair.near;
    FileDescriptor& far = pair.far;
    SocketTuning tuning;
};

TEST_F(ATcpConnection, AcknowledgesAtOnceAfterAStepThatLeavesNothingToDo) {
    delayAcknowledgements();
    tuning.stepped(near.get(), true);
    EXPECT_FALSE(acknowledgesAtOnce()) << "the next packet carries the acknowledgement along";
    step();
    EXPECT_TRUE(acknowledgesAtOnce());
}

TEST_F(ATcpConnection, LeavesTheAcknowledgementToTheStepThatReadsTheRest) {
    ASSERT_EQ(::send(far.get(), "x", 1, 0), 1);
    int waiting = 0;
    ASSERT_TRUE(mqtt::test::eventually(
        [&] { return ::ioctl(near.get(), FIONREAD, &waiting) == 0 && waiting > 0; }));
    delayAcknowledgements();
    step();
    EXPECT_FALSE(acknowledgesAtOnce());
}

TEST_F(ATcpConnection, AcknowledgesAStreamOnlyWhenItPauses) {
    ASSERT_TRUE(acknowledgesAtOnce());
    EXPECT_TRUE(mqtt::test::eventually([&] {
        receiveMessages(100);
        step();
        return !acknowledgesAtOnce();
    })) << "a busy machine may pause in between";
    EXPECT_LT(tuning.longestWait(), LONGEST_WAIT) << "the pause must be noticed";
    EXPECT_TRUE(acknowledgesLater());
    EXPECT_EQ(tuning.longestWait(), LONGEST_WAIT);
}

TEST_F(ATcpConnection, TakesTheFirstMessageAfterAPauseForTheStreamAgain) {
    ASSERT_TRUE(mqtt::test::eventually([&] {
        receiveMessages(100);
        return tuning.longestWait() < LONGEST_WAIT;
    }));
    delayAcknowledgements();
    ASSERT_TRUE(acknowledgesLater());
    EXPECT_TRUE(mqtt::test::eventually([&] {
        receiveMessages(1);
        delayAcknowledgements();
        step();
        bool const isInStream = !acknowledgesAtOnce();
        receiveMessages(100);
        return acknowledgesLater() && isInStream;
    })) << "a busy machine may pause in between";
    receiveMessages(1);
    delayAcknowledgements();
    ASSERT_TRUE(acknowledgesLater());
    delayAcknowledgements();
    receiveMessages(1);
    step();
    EXPECT_TRUE(acknowledgesAtOnce()) << "one message between two pauses is no stream";
}

TEST_F(ATcpConnection, AcknowledgesAFastExchangeAtOnce) {
    delayAcknowledgements();
    for (int i = 0; i < 100; ++i) {
        issuePackets(1);
        receiveMessages(4);
    }
    step();
    EXPECT_TRUE(acknowledgesAtOnce());
}

TEST_F(ATcpConnection, AcknowledgesNoMoreThanItsOwnStreamDoes) {
    issuePackets(100);
    step();
    delayAcknowledgements();
    issuePackets(1);
    step();
    EXPECT_FALSE(acknowledgesAtOnce()) << "the next packet carries the acknowledgement along";
    EXPECT_TRUE(acknowledgesLater()) << "no packet follows";
}

TEST_F(ATcpConnection, LeavesNothingToAUnixSocketThatFollowsIt) {
    issuePackets(100);
    step();
    tuning.connected(-1); // has no effect
    tuning.stepped(-1, false);
    ASSERT_LT(tuning.longestWait(), LONGEST_WAIT);
    FileDescriptor const unixSocket(::socket(AF_UNIX, SOCK_STREAM, 0));
    tuning.connected(unixSocket.get());
    tuning.stepped(unixSocket.get(), false);
    EXPECT_EQ(tuning.longestWait(), LONGEST_WAIT);
}

} // namespace
