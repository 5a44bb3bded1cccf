// Connecting and reconnecting, as the broker library is told to.

#include "client_on_a_script.hpp"

#include "client/backoff.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace {

using support::StandIn;
using testing::ElementsAre;
using testing::Pair;
using Error = mqtt::MqttClient::Error;
using Operation = StandIn::Operation;

constexpr unsigned PATIENCE = 30; // seconds

/// Made for the host "host" and port 1883.
class AConnectionOnAScript : public AClientOnAScript {
protected:
    /// Host and port of each connection that was asked for.
    std::vector<std::pair<std::string, int>> asked() const {
        std::vector<std::pair<std::string, int>> result;
        for (auto const& call : script_->calls(Operation::CONNECT)) {
            result.emplace_back(call.topic, call.qos);
        }
        return result;
    }
};

TEST_F(AConnectionOnAScript, MayBeAskedForAtPortZeroWhichIsRememberedToo) {
    ASSERT_EQ(client_->connect("/run/broker", 0, PATIENCE), Error::SUCCESS);
    ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    connect();
    EXPECT_THAT(asked(), ElementsAre(Pair("/run/broker", 0), Pair("/run/broker", 0)));
}

TEST_F(AConnectionOnAScript, LeavesHostAndPortAsTheyWereWhenItFails) {
    errno = ECONNREFUSED;
    script_->answer(Operation::CONNECT, {static_cast<int>(Error::ERRNO)});
    ASSERT_EQ(client_->connect("elsewhere", 4, PATIENCE), Error::ERRNO);
    ASSERT_TRUE(states_.waitFor(conv::ComState::CONNECTED)) << "it goes on trying";
    ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    connect();
    EXPECT_THAT(asked(), ElementsAre(Pair("elsewhere", 4), Pair("host", 1883)));
}

// The count of attempts is one for the whole process, and so for this test.

TEST_F(AConnectionOnAScript, LetsTheBackOffStartAnewWithEachStepThatSucceeds) {
    connect();
    for (int i = 0; i < 3; ++i) {
        mqtt::nextReconnectAttempt();
    }
    letTheStepEnd();
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 1);
}

TEST_F(AConnectionOnAScript, LetsTheBackOffGrowOnWithEachStepThatFails) {
    mqtt::resetReconnectAttempts();
    mqtt::nextReconnectAttempt();
    // Not connected, it makes one step after the other, and all fail.
    auto const before = script_->loops();
    ASSERT_TRUE(support::eventually([&] { return script_->loops() > before + 1; }));
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 2);
}

} // namespace
