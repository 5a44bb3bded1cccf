#include "client/scripted_session.hpp"

#include "support/broker.hpp"
#include "support/port_lease.hpp"
#include "support/raw_peer.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <thread>

namespace {

using support::MessageRecorder;
using support::ScriptedServer;
using support::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using Client = mqtt::MqttClient;
using Error = mqtt::MqttClient::Error;

bool isSet(bool value) {
    return value;
}

void set(Watched<bool>& flag) {
    flag.change([](bool& value) { value = true; });
}

/// Destroys them, in order, and keeps how long that took with the test's results.
template <class... Clients>
std::chrono::milliseconds timeToDestroy(Clients&... clients) {
    auto const begin = std::chrono::steady_clock::now();
    (clients.reset(), ...);
    auto const taken = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begin);
    testing::Test::RecordProperty("millisecondsToDestroy", std::to_string(taken.count()));
    std::cout << "destroyed after " << taken.count() << " ms\n";
    return taken;
}

/// Two seconds are promised. A client that waits for what it should break off takes from 15
/// seconds to minutes; this lies in between, so that a busy machine is no failure.
constexpr std::chrono::seconds FAR_TOO_LONG{10};

/// Whether somebody on this machine is trying to connect to this port of the loopback address.
bool isBeingConnectedTo(int port) {
    std::ostringstream remote;
    remote << "0100007F:" << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << port
           << " 02 "; // SYN_SENT
    std::ifstream table("/proc/net/tcp");
    std::string line;
    while (std::getline(table, line)) {
        if (line.find(remote.str()) != std::string::npos) {
            return true;
        }
    }
    return false;
}

class TheEndOfAClient : public ScriptedSession {
protected:
    /// What the client unsubscribed by the time the connection has ended. Topics that begin
    /// with "$" are the client's own affair.
    Strings unsubscribed() {
        EXPECT_TRUE(server.waitForNoConnection());
        auto topics = topicsIn(Type::UNSUBSCRIBE, 1);
        topics.erase(std::remove_if(topics.begin(), topics.end(),
                                    [](auto const& topic) { return topic.front() == '$'; }),
                     topics.end());
        return topics;
    }
};

TEST_F(TheEndOfAClient, UnsubscribesEveryTopicAtTheBrokerInByteOrder) {
    for (char const* const topic : {"b", "a/+", "a", "a/#", "b"}) {
        subscribe(topic, first);
    }
    client.reset();
    EXPECT_THAT(unsubscribed(), ElementsAre("a", "a/#", "a/+", "b"));
}

TEST_F(TheEndOfAClient, UnsubscribesAtTheBrokerAlsoWhileMessagesFly) {
    subscribe("a", first);
    subscribe("b", first);
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop && server.publish("a", "x")) {
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(first.waitForCount(100));
    client.reset();
    stop = true;
    flood.join();
    EXPECT_THAT(unsubscribed(), ElementsAre("a", "b"));
}

TEST_F(TheEndOfAClient, UnsubscribesAtTheBrokerAlsoWhenASubscriberIsBusy) {
    Watched<bool> entered;
    Watched<bool> ending;
    MessageRecorder* self = nullptr;
    // Not by way of the pointer: that is null from the beginning of the end.
    auto& dying = *client;
    MessageRecorder slow([&](auto&&...) {
        set(entered);
        ending.waitFor(isSet);
        // Its own registrations, one by one, until somebody has taken all that are left.
        int next = 0;
        EXPECT_TRUE(support::eventually([&] {
            return dying.unsubscribe("probe/" + std::to_string(next++), self) == Error::NOT_FOUND;
        }));
    });
    self = &slow;
    subscribe("a", slow);
    for (int i = 0; i < 1000; ++i) {
        subscribe("probe/" + std::to_string(i), slow);
    }
    send("a", "x");
    ASSERT_TRUE(entered.waitFor(isSet));
    set(ending);
    client.reset();
    EXPECT_EQ(unsubscribed().size(), 1001U);
}

TEST_F(TheEndOfAClient, SendsNoDisconnectAndTellsNoListener) {
    support::StateRecorder listener;
    client->registerListener(&listener);
    client.reset();
    ASSERT_TRUE(server.waitForNoConnection());
    EXPECT_EQ(server.count(Type::DISCONNECT), 0U);
    EXPECT_THAT(listener.history(), IsEmpty());
}

TEST_F(TheEndOfAClient, DropsWhatIsQueued) {
    loseConnection();
    ASSERT_EQ(client->publish("queued", "x", 1, false), Error::SUCCESS);
    client.reset();
    EXPECT_EQ(server.count(Type::PUBLISH), 0U);
}

TEST_F(TheEndOfAClient, WaitsForTheCallUnderWay) {
    Watched<bool> entered;
    Watched<bool> destroyed;
    std::atomic<bool> left{false};
    MessageRecorder slow([&](auto&&...) {
        set(entered);
        EXPECT_FALSE(destroyed.waitFor(isSet, std::chrono::milliseconds(300)));
        left = true;
    });
    subscribe("a", slow);
    send("a", "x");
    ASSERT_TRUE(entered.waitFor(isSet));
    client.reset();
    EXPECT_TRUE(left);
    set(destroyed);
}

TEST_F(TheEndOfAClient, ComesInTimeDuringAPause) {
    subscribe("a", first);
    client->pause();
    EXPECT_LT(timeToDestroy(client), FAR_TOO_LONG);
}

TEST_F(TheEndOfAClient, ComesInTimeWhenABrokerGoneSilentStillStands) {
    server.setMode(ScriptedServer::Mode::SILENT);
    for (int i = 0; i < 100; ++i) {
        subscribe("a/" + std::to_string(i), first);
    }
    EXPECT_LT(timeToDestroy(client), FAR_TOO_LONG);
}

TEST_F(TheEndOfAClient, ComesInTimeDuringAReconnectionToASilentHost) {
    server.setMode(ScriptedServer::Mode::NOT_ACCEPTING);
    server.drop();
    ASSERT_TRUE(support::eventually([&] { return isBeingConnectedTo(server.port()); }));
    EXPECT_LT(timeToDestroy(client), FAR_TOO_LONG);
}

TEST(AClientThatAwaitsTheBrokersConsent, IsDestroyedInTime) {
    ScriptedServer server(ScriptedServer::Mode::SILENT);
    support::ClientOptions options;
    options.connect = false;
    auto client = support::testClient(server.host(), server.port(), options);
    ASSERT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(server.waitForPackets(support::PacketType::CONNECT, 1));
    EXPECT_LT(timeToDestroy(client), FAR_TOO_LONG);
    EXPECT_TRUE(server.waitForNoConnection());
}

TEST(AClientInABackOff, IsDestroyedInTime) {
    support::PortLease const nobodysPort;
    support::ClientOptions options;
    options.connect = false;
    std::array<std::unique_ptr<Client>, 8> clients;
    // They share one counter of attempts: the last ones sleep 15 seconds.
    for (auto& client : clients) {
        client = support::testClient("127.0.0.1", nobodysPort.port(), options);
        ASSERT_EQ(client->connect("", -1, 0), Error::ERRNO);
    }
    EXPECT_LT(timeToDestroy(clients[0], clients[1], clients[2], clients[3], clients[4], clients[5],
                            clients[6], clients[7]),
              FAR_TOO_LONG);
}

TEST(AClientThatNeverConnected, IsDestroyedInTime) {
    support::ClientOptions options;
    options.connect = false;
    MessageRecorder recorder;
    auto client = support::testClient("127.0.0.1", 1, options);
    ASSERT_EQ(client->subscribe("a", &recorder, 0), Error::SUCCESS);
    EXPECT_LT(timeToDestroy(client), FAR_TOO_LONG);
}

TEST(AClientDestroyedWithoutAWord, LetsTheBrokerPublishItsWill) {
    support::Broker broker;
    support::RawPeer peer(broker);
    peer.subscribe("will");
    support::ClientOptions options;
    options.connect = false;
    auto client = support::testClient(broker, options);
    ASSERT_EQ(client->setWill("will", "gone", 1, false), Error::SUCCESS);
    ASSERT_EQ(client->connect("", -1, 30), Error::SUCCESS);
    client.reset();
    ASSERT_TRUE(peer.waitForMessages(1));
    EXPECT_THAT(peer.payloads(), ElementsAre("gone"));
}

TEST(APersistentClient, LeavesNoSubscriptionInItsSession) {
    support::Broker broker;
    support::RawPeer peer(broker);
    MessageRecorder before;
    support::ClientOptions options;
    options.persistent = true;
    options.id = support::uniqueId();
    auto client = support::testClient(broker, options);
    ASSERT_EQ(client->subscribe("#", &before, 0), Error::SUCCESS);
    ASSERT_EQ(client->publishWait("reached", "", 1, false, 30), Error::SUCCESS);
    client.reset();

    // The same session again: what it is still subscribed to comes by itself.
    support::RawPeerOptions session;
    session.clientId = Client::clientId(options.id);
    session.cleanSession = false;
    support::RawPeer successor(broker, session);
    peer.publish("a", "left behind");
    successor.subscribe("marker");
    peer.publish("marker", "end");
    ASSERT_TRUE(successor.waitForMessages(1));
    EXPECT_THAT(successor.payloads(), ElementsAre("end"));
}

} // namespace
