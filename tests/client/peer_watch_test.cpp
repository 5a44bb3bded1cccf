#include "client/socket/peer_watch.hpp"

#include "support/eventually.hpp"
#include "support/file_descriptor.hpp"
#include "support/socket.hpp"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <functional>
#include <string>

namespace {

using mqtt::PeerWatch;
using support::FileDescriptor;

void set(int fd, int option, int value) {
    ASSERT_EQ(::setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value), 0);
}

void send(int fd, std::string const& bytes) {
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
}

/// Two ends of a TCP connection: a client that watches, and its peer.
class APeer : public testing::Test {
protected:
    void SetUp() override { watch.begin(); }

    /// One step of the client: waits as long as it may, reads, and acknowledges if it shall.
    bool step() {
        pollfd readable{client.get(), POLLIN, 0};
        char buffer[100];
        if (::poll(&readable, 1, static_cast<int>(watch.patience().count())) == 1) {
            received += ::recv(client.get(), buffer, sizeof buffer, 0);
        }
        bool const urgent = watch.look(client.get());
        if (urgent) {
            set(client.get(), TCP_QUICKACK, 1);
        }
        return urgent;
    }

    void awaitBytes(int bytes) {
        EXPECT_TRUE(support::eventually([&] {
            int there = 0;
            return ::ioctl(client.get(), FIONREAD, &there) == 0 && there == bytes;
        }));
    }

    /// One step of a client that reads nothing before there is all of so much.
    void stepWhenThereIs(int bytes) {
        awaitBytes(bytes);
        std::string buffer(static_cast<std::size_t>(bytes), ' ');
        EXPECT_EQ(::recv(client.get(), buffer.data(), buffer.size(), 0), bytes);
        watch.look(client.get());
    }

    /// Steps until so much has been read. Returns whether the last step acknowledged.
    bool read(ssize_t bytes) {
        bool urgent = false;
        for (auto const goal = received + bytes; received < goal;) {
            urgent = step();
        }
        return urgent;
    }

    void ask() {
        send(client.get(), "ask?");
        watch.look(client.get());
        char buffer[100];
        ASSERT_GT(::recv(peer.get(), buffer, sizeof buffer, 0), 0);
    }

    /// A question with two answers. Returns whether acknowledging the first one was urgent.
    bool askForTwo() {
        ask();
        send(peer.get(), "here");
        bool const urgent = read(4);
        send(peer.get(), "more");
        read(4);
        return urgent;
    }

    /// A question with two answers, the second of which comes after a silence.
    /// Returns whether acknowledging the second one was urgent.
    bool askForTwoInTurn() {
        ask();
        send(peer.get(), "here");
        read(4);
        step();
        send(peer.get(), "more");
        return read(4);
    }

    /// Whether it is taken for one that does not wait, after so many of these rounds.
    bool sendsOnAfter(int rounds, std::function<void()> const& round) {
        watch.begin();
        for (int i = 0; i < rounds; ++i) {
            round();
        }
        return watch.sendsOn();
    }

    bool askForOne() {
        ask();
        send(peer.get(), "here");
        return read(4);
    }

    support::TcpPair pair;
    FileDescriptor& client = pair.near;
    FileDescriptor& peer = pair.far;
    PeerWatch watch;
    ssize_t received = 0;
};

TEST_F(APeer, ThatWaitsForAcknowledgementsGetsThemAtOnce) {
    EXPECT_TRUE(support::eventually([this] { return askForTwo(); }));
    EXPECT_FALSE(watch.sendsOn());
}

TEST_F(APeer, ThatDoesNotWaitNeedsNone) {
    set(peer.get(), TCP_NODELAY, 1);
    EXPECT_TRUE(support::eventually([this] {
        askForTwo();
        return watch.sendsOn();
    }));
    EXPECT_FALSE(askForTwo());
    EXPECT_EQ(watch.patience(), std::chrono::milliseconds(1000));
}

TEST_F(APeer, WhoseEveryPacketIsAnsweredNeedsNoneUntilItFallsSilent) {
    int urgent = 0;
    for (int i = 0; i < 1000; ++i) {
        urgent += askForOne() ? 1 : 0;
    }
    EXPECT_LT(urgent, 500) << "now and then a busy machine looks like silence";
    EXPECT_TRUE(support::eventually([this] {
        askForOne();
        return watch.patience() < std::chrono::milliseconds(1000);
    })) << "it may be waiting";
    EXPECT_TRUE(step());
    EXPECT_EQ(watch.patience(), std::chrono::milliseconds(1000)) << "and has got what it waits for";
}

TEST_F(APeer, IsNotTakenForSilentWhileNoTimeHasPassed) {
    bool keptBack = false;
    for (int i = 0; i < 20 && !keptBack; ++i) { // a busy machine lets time pass
        ask();
        send(peer.get(), "here");
        read(4);
        keptBack = watch.patience() < std::chrono::milliseconds(1000) && !watch.look(client.get());
    }
    EXPECT_TRUE(keptBack) << "a step may end at once, for a packet of ours that is held back";
}

TEST_F(APeer, ThatAnswersNewsOfOursHasNotWaitedForAnAcknowledgement) {
    for (int i = 0; i < 20; ++i) {
        ask(); // with it goes the acknowledgement of what was read last
        send(peer.get(), "here");
        read(4);
        ASSERT_TRUE(support::eventually([this] { return step(); })) << "the silence";
        char buffer[100];
        send(client.get(), "news");
        ASSERT_GT(::recv(peer.get(), buffer, sizeof buffer, 0), 0);
        send(peer.get(), "more");
        EXPECT_FALSE(read(4));
    }
}

TEST_F(APeer, ThatHasNothingToSayToAStreamIsOwedNothing) {
    int urgent = 0;
    for (int i = 0; i < 1000; ++i) {
        send(client.get(), "news");
        urgent += watch.look(client.get()) ? 1 : 0;
    }
    EXPECT_EQ(urgent, 0);
    EXPECT_TRUE(support::eventually([this] {
        EXPECT_FALSE(step());
        return watch.patience() == std::chrono::milliseconds(1000);
    })) << "there is nothing to acknowledge";
}

TEST_F(APeer, IsLookedAtAnewWithEachConnection) {
    set(peer.get(), TCP_NODELAY, 1);
    ASSERT_TRUE(support::eventually([this] {
        askForTwo();
        return watch.sendsOn();
    }));
    watch.begin();
    EXPECT_FALSE(watch.sendsOn());
}

TEST_F(APeer, ThatWasSeenNotToWaitIsNotTakenForOneThatWaits) {
    set(peer.get(), TCP_NODELAY, 1);
    // Again, because on a busy machine it may have been seen late, and that does not count.
    EXPECT_TRUE(support::eventually([this] {
        watch.begin();
        askForTwo();
        for (int i = 0; i < 20; ++i) {
            if (askForTwoInTurn()) {
                return false;
            }
        }
        return !watch.sendsOn();
    }));
}

TEST_F(APeer, IsNotSaidToSendOnForWhatIsTooLargeToBeHeldBack) {
    set(peer.get(), TCP_NODELAY, 1);
    EXPECT_FALSE(sendsOnAfter(20, [this] {
        ask();
        for (int i = 0; i < 8; ++i) {
            send(peer.get(), std::string(1000, 'x'));
        }
        stepWhenThereIs(8000);
    }));
}

TEST_F(APeer, IsNotSaidToSendOnForWhatFollowsAnAcknowledgement) {
    EXPECT_FALSE(sendsOnAfter(20, [this] {
        ask();
        send(peer.get(), "here");
        awaitBytes(4);
        set(client.get(), TCP_QUICKACK, 1);
        stepWhenThereIs(4);
        send(peer.get(), "more");
        stepWhenThereIs(4);
    }));
}

TEST_F(APeer, IsNotSaidToSendOnWhenTheKernelHasAcknowledgedOfItsOwnAccord) {
    // Again, because on a busy machine a long time may seem short.
    EXPECT_TRUE(support::eventually([this] {
        return !sendsOnAfter(4, [this] {
            ask();
            send(peer.get(), "here");
            stepWhenThereIs(4);
            send(peer.get(), "more");
            stepWhenThereIs(4);
        });
    }));
}

TEST_F(APeer, WhoseEveryPacketWasAnsweredIsLookedAtAnewAfterASilence) {
    set(peer.get(), TCP_NODELAY, 1);
    for (int i = 0; i < 1000; ++i) {
        askForOne();
    }
    EXPECT_TRUE(support::eventually([this] {
        step();
        askForTwo();
        return watch.sendsOn();
    }));
}

TEST_F(APeer, ThatSeemedToWaitIsLookedAtAnewAfterAWhile) {
    int inARow = 0;
    ASSERT_TRUE(support::eventually([&] { return (inARow = askForTwo() ? inARow + 1 : 0) == 10; }));
    set(peer.get(), TCP_NODELAY, 1);
    EXPECT_TRUE(support::eventually([this] {
        for (int i = 0; i < 100 && !watch.sendsOn(); ++i) {
            askForTwo();
        }
        return watch.sendsOn();
    }));
}

TEST(APeerThatCannotBeLookedAt, IsTakenForOneThatWaits) {
    PeerWatch watch;
    watch.begin();
    EXPECT_TRUE(watch.look(-1));
}

} // namespace
