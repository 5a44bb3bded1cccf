#include "client/socket/send_pacing.hpp"

#include "client/sockets.hpp"
#include "mqtt/test/eventually.hpp"
#include "net/file_descriptor.hpp"
#include "net/socket.hpp"

#include <gtest/gtest.h>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

using mqtt::SendPacing;

/// A client's end of a TCP connection whose other end delays its acknowledgements.
class APublisher : public testing::Test {
protected:
    APublisher() {
        switchOff(pair.far.get(), TCP_QUICKACK);
        pacing.begin(pair.near.get());
    }

    bool sendsAtOnce() const { return isOn(pair.near.get(), TCP_NODELAY); }

    int heldBack() const {
        int bytes = -1;
        ::ioctl(pair.near.get(), SIOCOUTQNSD, &bytes);
        return bytes;
    }

    void step() { pacing.stepped(pair.near.get()); }

    void startStream(bool answered = true) {
        for (int i = 0; i < 100; ++i) {
            pacing.packetIssued(answered);
        }
        step();
    }

    /// Sends small pieces until one is held back until an acknowledgement comes.
    bool getsHeldBack() {
        return mqtt::test::eventually(
            [this] { return ::send(pair.near.get(), "x", 1, 0) == 1 && heldBack() > 0; });
    }

    mqtt::test::TcpPair pair;
    SendPacing pacing;
};

TEST_F(APublisher, SendsAtOnceAsLongAsAnswersArrive) {
    EXPECT_TRUE(sendsAtOnce());
    for (int i = 0; i < 100; ++i) {
        pacing.packetIssued(true);
        pacing.packetIssued(true);
        step();
        pacing.answerArrived();
    }
    EXPECT_TRUE(sendsAtOnce());
    EXPECT_FALSE(pacing.holdsBack());
}

TEST_F(APublisher, GathersAStreamAndReleasesItsEndAfterAPause) {
    startStream();
    EXPECT_FALSE(sendsAtOnce());
    EXPECT_TRUE(pacing.holdsBack());
    ASSERT_TRUE(getsHeldBack());
    EXPECT_TRUE(mqtt::test::eventually([this] {
        step();
        return heldBack() == 0;
    }));
    EXPECT_FALSE(pacing.holdsBack());
    EXPECT_FALSE(sendsAtOnce()) << "the next batch of the stream is gathered from its beginning";
    pacing.packetIssued(true);
    step();
    EXPECT_TRUE(pacing.holdsBack());
}

TEST_F(APublisher, WaitsShorterForTheEndOfAStreamThatTheBrokerDoesNotAnswer) {
    startStream();
    auto const answered = pacing.longestWait();
    startStream(false);
    EXPECT_LT(pacing.longestWait(), answered);
}

TEST_F(APublisher, SendsAtOnceAgainWhenTheStreamHasBecomeAnExchangeAndOnANewConnection) {
    for (int burst = 0; burst < 3; ++burst) {
        startStream();
        pacing.answerArrived();
        for (int i = 0; i < 15; ++i) {
            step();
        }
        EXPECT_FALSE(sendsAtOnce()) << "answers now and then do not make an exchange";
    }
    step();
    EXPECT_TRUE(sendsAtOnce());
    EXPECT_FALSE(pacing.holdsBack());
    startStream();
    pacing.begin(pair.near.get());
    step();
    EXPECT_TRUE(sendsAtOnce());
}

} // namespace
