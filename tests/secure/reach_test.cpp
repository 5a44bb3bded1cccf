// Brokers that cannot be reached.

#include "mqtt/test/eventually.hpp"
#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/test_client.hpp"

#include <mqtt/connection_options.hpp>
#include <mqtt/failure.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include <sys/resource.h>

namespace {

using mqtt::MqttClient;
using Error = MqttClient::Error;
using Reason = mqtt::Failure::Reason;

class ABrokerOutOfReach : public testing::Test {
protected:
    static std::unique_ptr<MqttClient> idleClient() {
        mqtt::test::ClientOptions options;
        options.connect = false;
        return mqtt::test::testClient("", 0, options);
    }

    static mqtt::Failure failureAt(std::string const& host, int port) {
        auto const client = idleClient();
        client->connect(host, port, 0);
        return client->lastFailure();
    }

    mqtt::test::PortLease const free_;
};

TEST_F(ABrokerOutOfReach, IsReportedWithTheErrorOfTheSystem) {
    auto const failure = failureAt("/no/such/socket", 0);
    EXPECT_EQ(failure.reason, Reason::UNREACHABLE);
    EXPECT_EQ(failure.systemError, ENOENT);
    EXPECT_EQ(failure.peer, "/no/such/socket");
}

TEST_F(ABrokerOutOfReach, IsReportedSoAlsoWhenThePasswordComesWithTheSecondAttempt) {
    mqtt::ConnectionOptions options;
    int calls = 0;
    options.credentialsFunction = [&calls] {
        return ++calls == 1 ? throw std::runtime_error("not yet")
                            : mqtt::Credentials{"user", "password"};
    };
    MqttClient client(mqtt::test::uniqueId(), false, "", "127.0.0.1", free_.port(), false, options);
    client.connect("", -1, 0);
    EXPECT_EQ(client.lastFailure().reason, Reason::CREDENTIALS_FUNCTION);
    EXPECT_TRUE(mqtt::test::eventually([&] {
        auto const failure = client.lastFailure();
        return failure.reason == Reason::UNREACHABLE && failure.systemError == ECONNREFUSED;
    }));
}

TEST_F(ABrokerOutOfReach, MayHaveANameThatIsNotKnown) {
    EXPECT_EQ(failureAt("..", free_.port()).reason, Reason::NAME_NOT_RESOLVED);
}

TEST_F(ABrokerOutOfReach, MayBeSoForWantOfDescriptors) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit const none{0, before.rlim_max};
    for (auto const* const host : {"127.0.0.1", "localhost"}) {
        auto const client = idleClient();
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        client->connect(host, free_.port(), 0);
        auto const failure = client->lastFailure();
        setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(failure.reason, Reason::TOO_MANY_DESCRIPTORS) << failure;
    }
}

} // namespace
