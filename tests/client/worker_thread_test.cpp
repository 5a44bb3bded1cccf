#include "client/client_on_a_script.hpp"

#include <gmock/gmock.h>

#include <array>
#include <csignal>
#include <stdexcept>
#include <string>

#include <pthread.h>

namespace {

using support::StandIn;
using Operation = StandIn::Operation;

sigset_t blockedSignals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return blocked;
}

TEST_F(AClientOnAScript, HasAWorkerThatLeavesTheSignalsOfTheProcessToOthers) {
    connect();
    sigset_t blocked = blockedSignals();
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "what made the client is as it was";
    script_->runInLoop([&](auto&) { blocked = blockedSignals(); });
    for (int const signal :
         {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGALRM, SIGUSR1, SIGPIPE, SIGRTMIN}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        EXPECT_EQ(sigismember(&blocked, fault), 0) << fault;
    }
}

TEST_F(AClientOnAScript, HasAWorkerWithAName) {
    connect();
    std::array<char, 16> name{};
    script_->runInLoop(
        [&](auto&) { ::pthread_getname_np(::pthread_self(), name.data(), name.size()); });
    EXPECT_STREQ(name.data(), "zym-mqtt");
}

TEST(AClientThatCannotBeMade, EndsItsWorkerAndSaysWhy) {
    StandIn::onConstruction([](StandIn& script) {
        script.setHook(Operation::CONNECT, [](auto const&) -> std::optional<int> {
            throw std::runtime_error("no connection today");
        });
    });
    EXPECT_THROW(mqtt::MqttClient(support::uniqueId(), false, "", "host", 1883, true),
                 std::runtime_error);
    EXPECT_TRUE(StandIn::last()->destroyed());
    StandIn::onConstruction({});
}

} // namespace
