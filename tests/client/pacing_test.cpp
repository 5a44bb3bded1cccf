#include "support/broker.hpp"
#include "support/eventually.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>

namespace {

using conv::SecondsDuration;
using mqtt::Topic;
using Error = mqtt::MqttClient::Error;

SecondsDuration const PATIENCE{30};

bool isConnectedTo(int fd, int port) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    return ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0
           && peer.sin_family == AF_INET && ntohs(peer.sin_port) == port;
}

/// Our end of the only connection that this process has to a port, or -1.
int connectionTo(int port) {
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int const fd = std::atoi(entry.path().filename().c_str());
        if (isConnectedTo(fd, port)) {
            return fd;
        }
    }
    return -1;
}

/// A client with a broker of its own.
class APacedClient : public testing::Test {
protected:
    explicit APacedClient(bool connected = true)
        : client(support::testClient(broker, options(connected))) {}

    bool sendsAtOnce() const {
        int value = -1;
        socklen_t length = sizeof value;
        ::getsockopt(connectionTo(broker.port()), IPPROTO_TCP, TCP_NODELAY, &value, &length);
        return value == 1;
    }

    bool gathers() const {
        return support::eventually([this] { return !sendsAtOnce(); });
    }

    void publish(int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(client->publish(topic, "news", 1, false), Error::SUCCESS);
        }
    }

    void subscribeToAll() {
        for (int i = 0; i < STREAM_LENGTH; ++i) {
            EXPECT_EQ(client->subscribe(topic + std::to_string(i), &recorder, 0), Error::SUCCESS);
        }
    }

    bool sendsAtOnceAfterExchanges() {
        return support::eventually([this] {
            EXPECT_EQ(client->publishWait(topic, "news", 1, false, PATIENCE), Error::SUCCESS);
            return sendsAtOnce();
        });
    }

    static constexpr int STREAM_LENGTH = 100;

    static support::ClientOptions options(bool connected) {
        support::ClientOptions result;
        result.connect = connected;
        return result;
    }

    Topic const topic{"paced"};
    support::MessageRecorder recorder;
    support::Broker broker;
    std::unique_ptr<mqtt::MqttClient> client;
};

class AnUnconnectedPacedClient : public APacedClient {
protected:
    AnUnconnectedPacedClient() : APacedClient(false) {}

    void connect() { ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS); }
};

TEST_F(APacedClient, SendsAtOnceWhatItWaitsFor) {
    for (int i = 0; i < STREAM_LENGTH; ++i) {
        ASSERT_EQ(client->publishWait(topic, "news", 1, false, PATIENCE), Error::SUCCESS);
    }
    EXPECT_TRUE(sendsAtOnce());
}

TEST_F(APacedClient, SendsAtOnceInAnExchange) {
    ASSERT_EQ(client->subscribe(topic, &recorder, 0), Error::SUCCESS);
    for (std::size_t i = 1; i <= STREAM_LENGTH; ++i) {
        publish(1);
        ASSERT_TRUE(recorder.waitForCount(i));
    }
    EXPECT_TRUE(sendsAtOnce());
}

TEST_F(APacedClient, GathersAStreamOfPublications) {
    publish(STREAM_LENGTH);
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, GathersAStreamOfClearedTopics) {
    for (int i = 0; i < STREAM_LENGTH; ++i) {
        ASSERT_EQ(client->clear(topic), Error::SUCCESS);
    }
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, GathersAStreamOfSubscriptions) {
    subscribeToAll();
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, GathersAStreamOfUnsubscriptions) {
    subscribeToAll();
    ASSERT_TRUE(gathers());
    ASSERT_TRUE(sendsAtOnceAfterExchanges());
    for (int i = 0; i < STREAM_LENGTH; ++i) {
        ASSERT_EQ(client->unsubscribe(topic + std::to_string(i), &recorder), Error::SUCCESS);
    }
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, SendsAtOnceAgainAfterAStream) {
    publish(STREAM_LENGTH);
    ASSERT_TRUE(gathers());
    EXPECT_TRUE(sendsAtOnceAfterExchanges());
}

TEST_F(AnUnconnectedPacedClient, GathersWhatWasQueued) {
    publish(STREAM_LENGTH);
    connect();
    EXPECT_TRUE(gathers());
}

TEST_F(AnUnconnectedPacedClient, GathersTheSubscriptionsOfItsRegistry) {
    subscribeToAll();
    connect();
    EXPECT_TRUE(gathers());
}

} // namespace
