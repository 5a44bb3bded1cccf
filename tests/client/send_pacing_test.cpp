#include "client/socket/send_pacing.hpp"

#include "support/eventually.hpp"
#include "support/file_descriptor.hpp"
#include "support/socket.hpp"

#include <gtest/gtest.h>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

using mqtt::SendPacing;

/// A client's end of a TCP connection whose other end takes its time to acknowledge.
class APublisher : public testing::Test {
protected:
    void SetUp() override {
        int const off = 0;
        ASSERT_EQ(::setsockopt(pair.far.get(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off), 0);
        pacing.begin(pair.near.get());
    }

    bool sendsAtOnce() const {
        int value = -1;
        socklen_t length = sizeof value;
        ::getsockopt(pair.near.get(), IPPROTO_TCP, TCP_NODELAY, &value, &length);
        return value != 0;
    }

    int heldBack() const {
        int bytes = -1;
        ::ioctl(pair.near.get(), SIOCOUTQNSD, &bytes);
        return bytes;
    }

    void step() { pacing.stepped(pair.near.get()); }

    void streams(bool answered = true) {
        for (int i = 0; i < 100; ++i) {
            pacing.issued(answered);
        }
        step();
    }

    /// Sends small pieces until one is held back for want of an acknowledgement.
    bool getsHeldBack() {
        return support::eventually(
            [this] { return ::send(pair.near.get(), "x", 1, 0) == 1 && heldBack() > 0; });
    }

    support::TcpPair pair;
    SendPacing pacing;
};

TEST_F(APublisher, SendsAtOnceToBeginWith) {
    EXPECT_TRUE(sendsAtOnce());
    EXPECT_FALSE(pacing.holdsBack());
}

TEST_F(APublisher, SendsAtOnceAsLongAsTheBrokerHasItsSay) {
    for (int i = 0; i < 100; ++i) {
        pacing.issued(true);
        pacing.issued(true);
        step();
        pacing.answered();
    }
    EXPECT_TRUE(sendsAtOnce());
}

TEST_F(APublisher, GathersWhatItStreams) {
    streams();
    EXPECT_FALSE(sendsAtOnce());
    EXPECT_TRUE(pacing.holdsBack());
}

TEST_F(APublisher, ReleasesTheEndOfAStreamAfterAPause) {
    streams();
    ASSERT_TRUE(getsHeldBack());
    EXPECT_TRUE(support::eventually([this] {
        step();
        return heldBack() == 0;
    }));
    EXPECT_FALSE(pacing.holdsBack());
    EXPECT_FALSE(sendsAtOnce()) << "the next batch of the stream is gathered from its beginning";
}

TEST_F(APublisher, WaitsShorterForTheEndOfAStreamThatTheBrokerDoesNotAnswer) {
    streams();
    auto const answered = pacing.patience();
    streams(false);
    EXPECT_LT(pacing.patience(), answered);
}

TEST_F(APublisher, HoldsBackAgainWhatFollowsAPause) {
    streams();
    ASSERT_TRUE(support::eventually([this] {
        step();
        return !pacing.holdsBack();
    }));
    pacing.issued(true);
    step();
    EXPECT_TRUE(pacing.holdsBack());
}

TEST_F(APublisher, SendsAtOnceAgainWhenTheStreamHasBecomeAConversation) {
    streams();
    pacing.answered();
    for (int i = 0; i < 15; ++i) {
        step();
    }
    EXPECT_FALSE(sendsAtOnce()) << "one word does not make a conversation";
    step();
    EXPECT_TRUE(sendsAtOnce());
    EXPECT_FALSE(pacing.holdsBack());
}

TEST_F(APublisher, GoesOnGatheringWhileTheBrokerIsHeardNowAndThen) {
    streams();
    for (int i = 0; i < 100; ++i) {
        pacing.answered();
        step();
        EXPECT_FALSE(sendsAtOnce());
        streams();
    }
}

TEST_F(APublisher, SendsAtOnceOnANewConnection) {
    streams();
    pacing.begin(pair.near.get());
    step();
    EXPECT_TRUE(sendsAtOnce());
}

} // namespace
