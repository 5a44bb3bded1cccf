// Connecting, disconnecting and the worker, over a stand-in for the broker library.

#include "client/client_on_a_script.hpp"

#include "client/backoff.hpp"
#include "mqtt/test/watched.hpp"

#include <mqtt/connection_options.hpp>

#include <gmock/gmock.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include <pthread.h>

namespace {

using conv::ComState;
using support::StandIn;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Error = mqtt::MqttClient::Error;
using Operation = StandIn::Operation;

constexpr int CONN_LOST = 7;
constexpr int FAILED = 14;

/// Made for the host "host" and port 1883.
class AConnectionOnAScript : public AClientOnAScript {
protected:
    /// Host and port of each call of the library's `connect`.
    std::vector<std::pair<std::string, int>> requested() const {
        std::vector<std::pair<std::string, int>> result;
        for (auto const& call : script_->calls(Operation::CONNECT)) {
            result.emplace_back(call.topic, call.qos);
        }
        return result;
    }
};

TEST_F(AConnectionOnAScript, LeavesTheHostAndPortOfTheLastThatWasMadeIfItFails) {
    ASSERT_EQ(client_->connect("/run/broker", 0, WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    errno = ECONNREFUSED;
    script_->answer(Operation::CONNECT, {static_cast<int>(Error::ERRNO)});
    ASSERT_EQ(client_->connect("elsewhere", 4, WAIT_SECONDS), Error::ERRNO);
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTED)) << "it goes on trying";
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    connect();
    EXPECT_THAT(requested(),
                ElementsAre(Pair("/run/broker", 0), Pair("elsewhere", 4), Pair("/run/broker", 0)));
}

TEST_F(AConnectionOnAScript, HasTheWillThatWasSetLast) {
    std::string const payload("with \0 byte", 11);
    EXPECT_EQ(client_->setWill("will", "replaced", 0, false), Error::SUCCESS);
    EXPECT_EQ(client_->setWill("will", payload, 2, true), Error::SUCCESS);
    auto const will = script_->calls(Operation::WILL_SET).back();
    EXPECT_EQ(will.topic, "will");
    EXPECT_EQ(will.payload, payload);
    EXPECT_EQ(will.qos, 2);
    EXPECT_TRUE(will.retain);
    EXPECT_EQ(client_->clearWill(), Error::SUCCESS);
    EXPECT_EQ(script_->count(Operation::WILL_CLEAR), 1U);
}

TEST_F(AConnectionOnAScript, KeepsItsWillAndItsOptionsInEveryState) {
    auto const expectRefusal = [this] {
        EXPECT_EQ(client_->setWill("will", "other", 2, false), Error::CONNECTION_PENDING);
        EXPECT_EQ(client_->clearWill(), Error::CONNECTION_PENDING);
        EXPECT_EQ(client_->setOptions({}), Error::CONNECTION_PENDING);
    };
    beginToConnect();
    expectRefusal();
    script_->runInLoop([](auto& object) { object.on_connect(0); });
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTED));
    expectRefusal();
    script_->loseConnection();
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    expectRefusal();
    EXPECT_EQ(script_->count(Operation::WILL_SET) + script_->count(Operation::WILL_CLEAR), 0U);
}

// The count of attempts is one for the whole process, and so for this test.

TEST_F(AConnectionOnAScript, RestartsTheBackOffWithEachStepThatSucceeds) {
    connect();
    for (int i = 0; i < 3; ++i) {
        mqtt::nextReconnectAttempt();
    }
    letTheStepEnd();
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 1);
}

TEST_F(AConnectionOnAScript, IsTriedAgainAfterAGrowingDelay) {
    mqtt::resetReconnectAttempts();
    mqtt::test::Watched<std::vector<std::chrono::steady_clock::time_point>> attempts;
    script_->setHook(Operation::RECONNECT, [&](auto const&) {
        attempts.change([](auto& all) { all.push_back(std::chrono::steady_clock::now()); });
        return FAILED;
    });
    connect();
    script_->loseConnection();
    ASSERT_TRUE(attempts.waitFor([](auto const& all) { return all.size() >= 3; }));
    script_->setHook(Operation::RECONNECT, {});
    auto const times = attempts.copy();
    // No upper bound: a busy machine may wake the worker late.
    EXPECT_GE(times[1] - times[0], mqtt::reconnectDelay(2));
    EXPECT_GE(times[2] - times[1], mqtt::reconnectDelay(3));
}

TEST_F(AConnectionOnAScript, EstablishedOrSearchedForIsGivenUp) {
    connect();
    client_->giveUp();
    EXPECT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    connect();
    script_->setHook(Operation::RECONNECT, [](auto const&) { return FAILED; });
    script_->loseConnection();
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    EXPECT_EQ(client_->disconnect(WAIT_SECONDS), Error::NO_CONN);
    client_->giveUp();
    EXPECT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    connect();
}

TEST_F(AConnectionOnAScript, RequestedByTwoDuringANetworkStepIsMadeForOneOfThem) {
    mqtt::test::Watched<bool> workerIsInside;
    mqtt::test::Watched<int> callers;
    script_->post([&](auto&) {
        mqtt::test::set(workerIsInside);
        EXPECT_TRUE(callers.waitFor([](int count) { return count == 2; }));
        // Callers count themselves a few instructions before they wait. On a busy machine each
        // yield lets all other threads run once.
        for (int i = 0; i < 50; ++i) {
            std::this_thread::yield();
        }
    });
    ASSERT_TRUE(workerIsInside.waitFor(mqtt::test::isSet));
    auto const connectOnce = [&] {
        callers.change([](int& count) { ++count; });
        return client_->connect("", -1, WAIT_SECONDS);
    };
    auto other = std::async(std::launch::async, connectOnce);
    auto const mine = connectOnce();
    EXPECT_THAT((std::vector{mine, other.get()}),
                testing::UnorderedElementsAre(Error::SUCCESS, Error::CONNECTION_PENDING));
    EXPECT_EQ(script_->count(Operation::CONNECT), 1U);
}

/// A client whose `disconnect` was called, while something else happens.
class ADisconnectingClient : public AClientOnAScript {
protected:
    /// The library takes the packet, but the connection stays.
    void beginToDisconnect() {
        script_->setHook(Operation::DISCONNECT, [](auto const&) { return std::optional<int>(0); });
        ASSERT_EQ(client_->disconnect(0), Error::TIMEOUT);
        script_->setHook(Operation::DISCONNECT, {});
    }

    void acceptTheConnection() {
        script_->runInLoop([](auto& object) { object.on_connect(0); });
        letTheStepEnd();
    }

    void connectAgain() {
        script_->setConnack(0);
        connect();
    }
};

TEST_F(ADisconnectingClient, KeepsItsQueueWhenTheBrokerAcceptsTheConnectionMeanwhile) {
    queue({"0"}, 0);
    beginToConnect();
    beginToDisconnect();
    acceptTheConnection();
    queue({"1"}, 1);
    queue({"2"}, 2);
    EXPECT_THAT(published(), IsEmpty());
    script_->loseConnection(0);
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    EXPECT_THAT(states_.history(), ElementsAre(ComState::CONNECTING, ComState::DISCONNECTED));
    connectAgain();
    EXPECT_THAT(published(), ElementsAre("0", "1", "2"));
}

TEST_F(ADisconnectingClient, WaitsForTheEndOfTheStepInWhichTheBrokerAcceptsTheConnection) {
    beginToConnect();
    std::future<Error> result;
    script_->runInLoop([&](auto& object) {
        object.on_connect(0);
        result = std::async(std::launch::async, [&] { return client_->disconnect(WAIT_SECONDS); });
        EXPECT_FALSE(
            mqtt::test::eventually([&] { return script_->count(Operation::DISCONNECT) != 0; },
                                   std::chrono::milliseconds(200)));
    });
    EXPECT_EQ(result.get(), Error::SUCCESS);
    EXPECT_EQ(client_->communicationState(), ComState::DISCONNECTED);
}

TEST_F(ADisconnectingClient, ConnectsAgainAfterItHasGivenUpDuringAnAttempt) {
    connect();
    script_->setHook(Operation::RECONNECT, [this](auto const&) {
        beginToDisconnect();
        client_->giveUp();
        return std::optional<int>(FAILED);
    });
    script_->loseConnection();
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    connectAgain();
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTED);
}

TEST_F(ADisconnectingClient, MayGiveUpInTheListenersCallForConnecting) {
    mqtt::test::StateRecorder listener([this](ComState state) {
        if (state == ComState::CONNECTING) {
            client_->giveUp();
        }
    });
    client_->registerListener(&listener);
    script_->answer(Operation::CONNECT, {FAILED});
    EXPECT_NE(client_->connect("", -1, 0), Error::SUCCESS);
    EXPECT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    client_->unregisterListener(&listener);
}

TEST_F(ADisconnectingClient, IsDisconnectedHoweverItsConnectionEnds) {
    connect();
    beginToDisconnect();
    script_->loseConnection(CONN_LOST);
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::RECONNECT), 0U);
    connect();
    EXPECT_EQ(client_->communicationState(), ComState::CONNECTED);
}

TEST_F(ADisconnectingClient, DoesNotTryAgainWhenItsConnectionFails) {
    connect();
    mqtt::test::Watched<bool> calledDisconnect;
    script_->setHook(Operation::RECONNECT, [&](auto const&) {
        EXPECT_TRUE(calledDisconnect.waitFor(mqtt::test::isSet));
        return std::optional<int>(FAILED);
    });
    script_->loseConnection(CONN_LOST);
    ASSERT_TRUE(script_->waitForCalls(Operation::RECONNECT, 1));
    beginToDisconnect();
    mqtt::test::set(calledDisconnect);
    ASSERT_TRUE(states_.waitFor(ComState::DISCONNECTED));
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::RECONNECT), 1U);
}

// The worker

sigset_t blockedSignals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return blocked;
}

class AWorkerOnAScript : public AClientOnAScript {};

TEST_F(AWorkerOnAScript, HasANameAndBlocksAllSignalsButThoseOfAFault) {
    connect();
    sigset_t blocked = blockedSignals();
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "the thread that made the client";
    std::array<char, 16> name{};
    script_->runInLoop([&](auto&) {
        blocked = blockedSignals();
        ::pthread_getname_np(::pthread_self(), name.data(), name.size());
    });
    EXPECT_STREQ(name.data(), "zym-mqtt");
    for (int const signal :
         {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGALRM, SIGUSR1, SIGPIPE, SIGRTMIN}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        EXPECT_EQ(sigismember(&blocked, fault), 0) << fault;
    }
}

TEST_F(AWorkerOnAScript, BeginsWhenTheLibraryKnowsOfTheThread) {
    for (int i = 0; i < 200; ++i) {
        auto const client = idleClient();
        auto const script = StandIn::last();
        ASSERT_TRUE(mqtt::test::eventually([&] { return script->loops() > 0; }));
        auto const first = script->calls().front();
        EXPECT_EQ(first.operation, Operation::THREADED_SET);
        EXPECT_EQ(first.thread, std::this_thread::get_id());
        EXPECT_EQ(first.loopsBefore, 0U);
    }
}

TEST(AClientThatCannotBeMade, EndsItsWorkerAndSaysWhy) {
    StandIn::onConstruction([](StandIn& script) {
        script.setHook(Operation::CONNECT, [](auto const&) -> std::optional<int> {
            throw std::runtime_error("on purpose");
        });
    });
    EXPECT_THROW(mqtt::MqttClient(mqtt::test::uniqueId(), false, "", "host", 1883, true),
                 std::runtime_error);
    EXPECT_TRUE(StandIn::last()->destroyed());
    StandIn::onConstruction({});
}

} // namespace
