#include "client/peer_watch.hpp"

#include "support/eventually.hpp"
#include "support/file_descriptor.hpp"
#include "support/tcp_pair.hpp"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>

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
        if (::poll(&readable, 1, static_cast<int>(watch.patience().count())) == 1)
            received += ::recv(client.get(), buffer, sizeof buffer, 0);
        bool const urgent = watch.look(client.get());
        if (urgent)
            set(client.get(), TCP_QUICKACK, 1);
        return urgent;
    }

    /// Steps until so much has been read. Returns whether the last step acknowledged.
    bool read(ssize_t bytes) {
        bool urgent = false;
        for (auto const goal = received + bytes; received < goal;)
            urgent = step();
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
    for (int i = 0; i < 1000; ++i)
        urgent += askForOne() ? 1 : 0;
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
        watch.look(client.get());
        return watch.patience() == std::chrono::milliseconds(1000);
    })) << "there is nothing to acknowledge";
    EXPECT_FALSE(watch.look(client.get()));
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

TEST(APeerThatCannotBeLookedAt, IsTakenForOneThatWaits) {
    PeerWatch watch;
    watch.begin();
    EXPECT_TRUE(watch.look(-1));
}

} // namespace
