// The end of a client: what it leaves at the broker, what it waits for, and what it breaks off.

#include "client/backoff.hpp"
#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/log_lines.hpp"
#include "support/scripted_server.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace {

using mqtt::test::MessageRecorder;
using support::ScriptedServer;
using Client = mqtt::MqttClient;
using Error = mqtt::MqttClient::Error;
using Type = support::PacketType;

/// Of a client that is connected to a scripted server.
class TheEndOfAClient : public testing::Test {
protected:
    void subscribe(std::string const& topic, Client::Subscriber& subscriber) {
        ASSERT_EQ(client->subscribe(topic, &subscriber, 0), Error::SUCCESS);
    }

    /// How many topics the client has unsubscribed when the connection has ended. The client uses
    /// topics that begin with "$" for itself.
    std::ptrdiff_t unsubscriptions() const {
        EXPECT_TRUE(server.waitForNoConnection());
        auto const all = server.received(Type::UNSUBSCRIBE);
        return std::count_if(all.begin(), all.end(),
                             [](auto const& packet) { return packet.topic.front() != '$'; });
    }

    std::unique_ptr<Client> idleClient(int port) {
        mqtt::test::ClientOptions options;
        options.connect = false;
        return mqtt::test::testClient(server.host(), port, options);
    }

    /// Two seconds are promised. A client that waits for what it should break off takes from 15
    /// seconds to minutes; the limit lies between, so that a busy machine does not fail the test.
    void expectToBeInTime() {
        auto const begin = std::chrono::steady_clock::now();
        client.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    }

    ScriptedServer server;
    MessageRecorder first;
    std::unique_ptr<Client> client = mqtt::test::testClient(server.host(), server.port());
};

TEST_F(TheEndOfAClient, UnsubscribesAtTheBrokerWhileASubscriberIsCalledAndUnsubscribes) {
    constexpr int TOPICS = 1000;
    int next = 0;
    auto& dying = *client; // the unique_ptr is null as soon as the destruction begins
    MessageRecorder subscriber(
        [&](auto&&...) { dying.unsubscribe("topic/" + std::to_string(next++), &subscriber); });
    subscribe("a", subscriber);
    for (int i = 0; i < TOPICS; ++i) {
        subscribe("topic/" + std::to_string(i), subscriber);
    }
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop && server.publish("a", "x")) {
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(subscriber.waitForCount(100));
    client.reset();
    stop = true;
    flood.join();
    EXPECT_EQ(unsubscriptions(), TOPICS + 1) << "each once";
}

TEST_F(TheEndOfAClient, SendsNoDisconnectAndTellsNoListener) {
    mqtt::test::StateRecorder listener;
    client->registerListener(&listener);
    client.reset();
    ASSERT_TRUE(server.waitForNoConnection());
    EXPECT_EQ(server.count(Type::DISCONNECT), 0U);
    EXPECT_THAT(listener.history(), testing::IsEmpty());
}

TEST_F(TheEndOfAClient, ComesInTimeDuringAPauseAndWithoutAnyConnection) {
    subscribe("a", first);
    client->pause();
    expectToBeInTime();
    client = idleClient(1);
    subscribe("a", first);
    expectToBeInTime();
}

TEST_F(TheEndOfAClient, ComesInTimeWhenTheBrokerHasGoneSilentOrDoesNotAnswerConnect) {
    server.setMode(ScriptedServer::Mode::SILENT);
    for (int i = 0; i < 100; ++i) {
        subscribe("a/" + std::to_string(i), first);
    }
    expectToBeInTime();
    client = idleClient(server.port());
    ASSERT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
    ASSERT_TRUE(server.waitForPackets(Type::CONNECT, 2));
    expectToBeInTime();
    EXPECT_TRUE(server.waitForNoConnection());
}

TEST_F(TheEndOfAClient, ComesInTimeDuringAReconnectionToASilentHost) {
    support::LogLines const log(mqtt::LogLevel::INFO);
    server.setMode(ScriptedServer::Mode::NOT_ACCEPTING);
    server.drop();
    ASSERT_TRUE(log.waitFor(": connects to"));
    expectToBeInTime();
}

TEST_F(TheEndOfAClient, ComesInTimeDuringABackOff) {
    mqtt::test::PortLease const unusedPort;
    client = idleClient(unusedPort.port());
    for (int i = 0; i < 6; ++i) {
        mqtt::nextReconnectAttempt(); // the delay becomes 15 seconds
    }
    ASSERT_EQ(client->connect("", -1, 0), Error::ERRNO);
    expectToBeInTime();
}

} // namespace
