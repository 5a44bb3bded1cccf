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

bool leadsTo(int fd, int port) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    return ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0
           && peer.sin_family == AF_INET && ntohs(peer.sin_port) == port;
}

/// Our end of the only connection that this process has to a port, or -1.
int connectionTo(int port) {
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int const fd = std::atoi(entry.path().filename().c_str());
        if (leadsTo(fd, port)) {
            return fd;
        }
    }
    return -1;
}

/// A client, alone at its broker.
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

    void stream(int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(client->publish(topic, "news", 1, false), Error::SUCCESS);
        }
    }

    void subscribeToMany() {
        for (int i = 0; i < MANY; ++i) {
            EXPECT_EQ(client->subscribe(topic + std::to_string(i), &recorder, 0), Error::SUCCESS);
        }
    }

    bool becomesTalkative() {
        return support::eventually([this] {
            EXPECT_EQ(client->publishWait(topic, "news", 1, false, PATIENCE), Error::SUCCESS);
            return sendsAtOnce();
        });
    }

    static constexpr int MANY = 100;

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

class APacedClientToBe : public APacedClient {
protected:
    APacedClientToBe() : APacedClient(false) {}

    void connect() { ASSERT_EQ(client->connect("", -1, PATIENCE), Error::SUCCESS); }
};

TEST_F(APacedClient, SendsAtOnceWhatItWaitsFor) {
    for (int i = 0; i < MANY; ++i) {
        ASSERT_EQ(client->publishWait(topic, "news", 1, false, PATIENCE), Error::SUCCESS);
    }
    EXPECT_TRUE(sendsAtOnce());
}

TEST_F(APacedClient, SendsAtOnceInAConversation) {
    ASSERT_EQ(client->subscribe(topic, &recorder, 0), Error::SUCCESS);
    for (std::size_t i = 1; i <= MANY; ++i) {
        stream(1);
        ASSERT_TRUE(recorder.waitForCount(i));
    }
    EXPECT_TRUE(sendsAtOnce());
}

TEST_F(APacedClient, GathersAStreamOfPublications) {
    stream(MANY);
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, GathersAStreamOfClearedTopics) {
    for (int i = 0; i < MANY; ++i) {
        ASSERT_EQ(client->clear(topic), Error::SUCCESS);
    }
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, GathersAStreamOfSubscriptions) {
    subscribeToMany();
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, GathersAStreamOfUnsubscriptions) {
    subscribeToMany();
    ASSERT_TRUE(gathers());
    ASSERT_TRUE(becomesTalkative());
    for (int i = 0; i < MANY; ++i) {
        ASSERT_EQ(client->unsubscribe(topic + std::to_string(i), &recorder), Error::SUCCESS);
    }
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClient, SendsAtOnceAgainAfterAStream) {
    stream(MANY);
    ASSERT_TRUE(gathers());
    EXPECT_TRUE(becomesTalkative());
}

TEST_F(APacedClientToBe, GathersWhatHasQueuedUp) {
    stream(MANY);
    connect();
    EXPECT_TRUE(gathers());
}

TEST_F(APacedClientToBe, GathersTheSubscriptionsOfItsRegistry) {
    subscribeToMany();
    connect();
    EXPECT_TRUE(gathers());
}

} // namespace
