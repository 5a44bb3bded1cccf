#include "support/stand_in/stand_in.hpp"

#include <mosquittopp.h>

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <thread>

namespace {

using support::StandIn;
using Operation = StandIn::Operation;
using testing::ElementsAre;

/// An object of the class with a worker, as users of the library make them.
class Client : public mosqpp::mosquittopp {
public:
    Client()
        : mosquittopp("client", true), worker_([this] {
              while (!stop_) {
                  loop(1000, 1);
              }
          }) {}
    ~Client() override { join(); }

    void join() {
        stop_ = true;
        if (worker_.joinable()) {
            StandIn::withClientId("client")->loseConnection();
            worker_.join();
        }
    }

    void on_connect(int code) override { tell("connect", code); }
    void on_disconnect(int code) override { tell("disconnect", code); }
    void on_publish(int mid) override { tell("publish", mid); }
    void on_unsubscribe(int mid) override { tell("unsubscribe", mid); }
    void on_message(mosquitto_message const* message) override {
        std::string const payload(static_cast<char const*>(message->payload),
                                  static_cast<std::size_t>(message->payloadlen));
        tell(std::string(message->topic) + ": " + payload, message->qos);
    }

    std::vector<std::string> told() const { return told_.copy(); }
    bool waitForTold(std::size_t count) const {
        return told_.waitFor([&](auto const& all) { return all.size() >= count; });
    }
    std::thread::id worker() const { return worker_.get_id(); }

private:
    void tell(std::string const& what, int number) {
        told_.change([&](auto& all) { all.push_back(what + " " + std::to_string(number)); });
    }

    support::Watched<std::vector<std::string>> told_;
    std::atomic<bool> stop_{false};
    std::thread worker_;
};

class AStandIn : public testing::Test {
protected:
    Client client_;
    std::shared_ptr<StandIn> script_ = StandIn::withClientId("client");
};

TEST_F(AStandIn, IsFoundByItsClientIdentifier) {
    ASSERT_TRUE(script_);
    EXPECT_EQ(script_->clientId(), "client");
    EXPECT_TRUE(script_->cleanSession());
    EXPECT_EQ(StandIn::last(), script_);
    EXPECT_EQ(StandIn::withClientId("nobody"), nullptr);
}

TEST_F(AStandIn, ConnectsAsWithAGoodBroker) {
    EXPECT_EQ(client_.connect("host", 1234, 30), 0);
    ASSERT_TRUE(client_.waitForTold(1));
    EXPECT_THAT(client_.told(), ElementsAre("connect 0"));
    StandIn::Call const call = script_->calls(Operation::CONNECT).at(0);
    EXPECT_EQ(call.topic, "host");
    EXPECT_EQ(call.qos, 1234);
    EXPECT_EQ(call.keepAlive, 30);
    EXPECT_EQ(call.thread, std::this_thread::get_id());
}

TEST_F(AStandIn, RefusesAConnectionAsTheLibraryTellsIt) {
    script_->setConnack(5);
    client_.connect("host", 1234, 30);
    ASSERT_TRUE(client_.waitForTold(2));
    EXPECT_THAT(client_.told(), ElementsAre("connect 5", "disconnect 5"));
    EXPECT_FALSE(script_->connected());
}

TEST_F(AStandIn, ReturnsNoConnectionUnlessConnected) {
    EXPECT_EQ(client_.publish(nullptr, "a", 1, "b", 2, true), MOSQ_ERR_NO_CONN);
    EXPECT_EQ(client_.subscribe(nullptr, "a", 0), MOSQ_ERR_NO_CONN);
    EXPECT_EQ(client_.unsubscribe(nullptr, "a"), MOSQ_ERR_NO_CONN);
    EXPECT_EQ(client_.disconnect(), MOSQ_ERR_NO_CONN);
}

TEST_F(AStandIn, AcknowledgesInTheNetworkStep) {
    client_.connect("host", 1234, 30);
    int first = 0;
    int second = 0;
    EXPECT_EQ(client_.publish(&first, "a", 1, "b", 2, true), 0);
    EXPECT_EQ(client_.unsubscribe(&second, "a"), 0);
    ASSERT_TRUE(client_.waitForTold(3));
    EXPECT_THAT(client_.told(), ElementsAre("connect 0", "publish " + std::to_string(first),
                                            "unsubscribe " + std::to_string(second)));
}

TEST_F(AStandIn, KeepsTheCallsInOrder) {
    client_.connect("host", 1234, 30);
    client_.publish(nullptr, "a", 3, "x\0y", 2, true);
    client_.subscribe(nullptr, "b/#", 1);
    client_.disconnect();
    ASSERT_TRUE(client_.waitForTold(3));
    auto const calls = script_->calls();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[1].operation, Operation::PUBLISH);
    EXPECT_EQ(calls[1].topic, "a");
    EXPECT_EQ(calls[1].payload, std::string("x\0y", 3));
    EXPECT_EQ(calls[1].qos, 2);
    EXPECT_TRUE(calls[1].retain);
    EXPECT_EQ(calls[2].operation, Operation::SUBSCRIBE);
    EXPECT_EQ(calls[2].topic, "b/#");
    EXPECT_EQ(client_.told().back(), "disconnect 0");
}

TEST_F(AStandIn, ReturnsTheResultsItWasGivenInOrder) {
    client_.connect("host", 1234, 30);
    script_->answer(Operation::PUBLISH, {7, 9});
    EXPECT_EQ(client_.publish(nullptr, "a"), 7);
    EXPECT_EQ(client_.publish(nullptr, "a"), 9);
    EXPECT_EQ(client_.publish(nullptr, "a"), 0);
}

TEST_F(AStandIn, LetsAHookAcknowledgeBeforeThePublishReturns) {
    client_.connect("host", 1234, 30);
    script_->setHook(Operation::PUBLISH, [this](StandIn::Call const& call) {
        script_->runInLoop([&](mosqpp::mosquittopp& object) { object.on_publish(call.mid); });
        return std::optional<int>(0);
    });
    int mid = 0;
    EXPECT_EQ(client_.publish(&mid, "a"), 0);
    EXPECT_THAT(client_.told(), ElementsAre("connect 0", "publish " + std::to_string(mid)));
}

TEST_F(AStandIn, RunsCallbacksOnTheWorker) {
    std::thread::id thread;
    script_->runInLoop([&](mosqpp::mosquittopp&) { thread = std::this_thread::get_id(); });
    EXPECT_EQ(thread, client_.worker());
}

TEST_F(AStandIn, DeliversMessages) {
    client_.connect("host", 1234, 30);
    script_->deliver("a/b", "payload", 1);
    ASSERT_TRUE(client_.waitForTold(2));
    EXPECT_EQ(client_.told().back(), "a/b: payload 1");
}

TEST_F(AStandIn, LosesTheConnectionInTheNetworkStep) {
    client_.connect("host", 1234, 30);
    script_->loseConnection();
    ASSERT_TRUE(client_.waitForTold(2));
    EXPECT_EQ(client_.told().back(), "disconnect 7");
    EXPECT_EQ(client_.publish(nullptr, "a"), MOSQ_ERR_NO_CONN);
}

TEST_F(AStandIn, WaitsInTheNetworkStepUntilSomethingHappens) {
    client_.connect("host", 1234, 30);
    ASSERT_TRUE(client_.waitForTold(1));
    script_->runInLoop([](mosqpp::mosquittopp&) {});
    std::size_t const before = script_->loops();
    EXPECT_FALSE(support::eventually([&] { return script_->loops() > before + 2; },
                                     std::chrono::milliseconds(100)));
}

TEST(AStandInWithoutItsObject, StillTellsWhatItSaw) {
    std::shared_ptr<StandIn> script;
    {
        Client client;
        script = StandIn::withClientId("client");
        client.connect("host", 1, 1);
        EXPECT_FALSE(script->destroyed());
    }
    EXPECT_TRUE(script->destroyed());
    EXPECT_EQ(script->count(Operation::CONNECT), 1U);
}

TEST(AStandInInTheMaking, IsScriptedBeforeItsClientCanUseIt) {
    StandIn::onConstruction([](StandIn& script) { script.answer(Operation::CONNECT, {15}); });
    Client client;
    StandIn::onConstruction({});
    EXPECT_EQ(client.connect("host", 1, 1), 15);
}

TEST(AStandInInTheMaking, MayThrowOutOfTheConstructor) {
    StandIn::onConstruction([](StandIn&) { throw std::runtime_error("no"); });
    EXPECT_THROW(Client(), std::runtime_error);
    StandIn::onConstruction({});
    EXPECT_TRUE(StandIn::last()->destroyed());
}

} // namespace
