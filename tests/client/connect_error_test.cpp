#include "client/socket/connect_error.hpp"

#include "mqtt/test/temp_dir.hpp"
#include "support/scripted_server.hpp"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using support::ScriptedServer;

constexpr std::chrono::minutes LONG_TIME{1};
constexpr std::chrono::milliseconds SHORT_TIME{50};

TEST(AConnectError, IsTheReasonOfTheSystem) {
    mqtt::test::TempDir const directory;
    mqtt::test::PortLease const unused;
    EXPECT_EQ(mqtt::connectError("127.0.0.1", unused.port(), LONG_TIME), ECONNREFUSED);
    EXPECT_EQ(mqtt::connectError(directory.file("missing").c_str(), 0, LONG_TIME), ENOENT);
}

TEST(AConnectError, IsATimeoutOfAHostThatDoesNotAnswer) {
    ScriptedServer const server(ScriptedServer::Mode::NOT_ACCEPTING);
    EXPECT_EQ(mqtt::connectError(server.host().c_str(), server.port(), SHORT_TIME), ETIMEDOUT);
}

TEST(AConnectError, IsARefusalByAServerThatAcceptsNow) {
    ScriptedServer const server;
    EXPECT_EQ(mqtt::connectError(server.host().c_str(), server.port(), LONG_TIME), ECONNREFUSED);
}

} // namespace
