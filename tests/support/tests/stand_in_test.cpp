#include "support/stand_in/stand_in.hpp"

#include <gmock/gmock.h>

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
    ~Client() override {
        stop_ = true;
        StandIn::withClientId("client")->loseConnection();
        worker_.join();
    }

    void on_connect(int code) override { record("connect", code); }
    void on_disconnect(int code) override { record("disconnect", code); }
    void on_publish(int mid) override { record("publish", mid); }
    void on_unsubscribe(int mid) override { record("unsubscribe", mid); }
    void on_message(mosquitto_message const* message) override {
        record(std::string(message->topic) + ": "
                   + std::string(static_cast<char const*>(message->payload),
                                 static_cast<std::size_t>(message->payloadlen)),
               message->qos);
    }

    /// The callbacks, once there are that many.
    std::vector<std::string> callbacks(std::size_t count) const {
        EXPECT_TRUE(callbacks_.waitFor([&](auto const& all) { return all.size() >= count; }));
        return callbacks_.copy();
    }
    std::thread::id worker() const { return worker_.get_id(); }

private:
    void record(std::string const& what, int number) {
        EXPECT_EQ(std::this_thread::get_id(), worker());
        callbacks_.change([&](auto& all) { all.push_back(what + " " + std::to_string(number)); });
    }

    support::Watched<std::vector<std::string>> callbacks_;
    std::atomic<bool> stop_{false};
    std::thread worker_;
};

class AStandIn : public testing::Test {
protected:
    Client client_;
    std::shared_ptr<StandIn> script_ = StandIn::withClientId("client");
};

TEST_F(AStandIn, BehavesLikeTheLibraryWithABroker) {
    EXPECT_EQ(client_.connect("host", 1234, 30), 0);
    int first = 0;
    int second = 0;
    EXPECT_EQ(client_.publish(&first, "a", 3, "x\0y", 2, true), 0);
    EXPECT_EQ(client_.unsubscribe(&second, "a"), 0);
    script_->deliver("a/b", "payload", 1);
    EXPECT_THAT(client_.callbacks(4),
                ElementsAre("connect 0", "publish " + std::to_string(first),
                            "unsubscribe " + std::to_string(second), "a/b: payload 1"));
    EXPECT_EQ(client_.disconnect(), 0);
    EXPECT_EQ(client_.callbacks(5).back(), "disconnect 0");
}

TEST_F(AStandIn, RecordsTheCallsInOrder) {
    client_.connect("host", 1234, 30);
    client_.publish(nullptr, "a", 3, "x\0y", 2, true);
    auto const calls = script_->calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].operation, Operation::CONNECT);
    EXPECT_EQ(calls[0].topic, "host");
    EXPECT_EQ(calls[0].qos, 1234);
    EXPECT_EQ(calls[0].keepAlive, 30);
    EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
    EXPECT_EQ(calls[1].operation, Operation::PUBLISH);
    EXPECT_EQ(calls[1].topic, "a");
    EXPECT_EQ(calls[1].payload, std::string("x\0y", 3));
    EXPECT_EQ(calls[1].qos, 2);
    EXPECT_TRUE(calls[1].retain);
    EXPECT_EQ(script_->count(Operation::PUBLISH), 1U);
}

TEST_F(AStandIn, HasNoConnectionWhenItWasRefusedOrLost) {
    EXPECT_EQ(client_.publish(nullptr, "a"), MOSQ_ERR_NO_CONN);
    script_->setConnack(5);
    client_.connect("host", 1234, 30);
    EXPECT_THAT(client_.callbacks(2), ElementsAre("connect 5", "disconnect 5"));
    EXPECT_EQ(client_.subscribe(nullptr, "a", 0), MOSQ_ERR_NO_CONN);
    script_->setConnack(0);
    client_.connect("host", 1234, 30);
    script_->loseConnection();
    EXPECT_EQ(client_.callbacks(4).back(), "disconnect 7");
    EXPECT_EQ(client_.disconnect(), MOSQ_ERR_NO_CONN);
}

TEST_F(AStandIn, ReturnsWhatTheScriptSays) {
    client_.connect("host", 1234, 30);
    script_->answer(Operation::PUBLISH, {7, 9});
    EXPECT_EQ(client_.publish(nullptr, "a"), 7);
    EXPECT_EQ(client_.publish(nullptr, "a"), 9);
    script_->setHook(Operation::PUBLISH, [this](StandIn::Call const& call) {
        script_->runInLoop([&](mosqpp::mosquittopp& object) { object.on_publish(call.mid); });
        return std::optional<int>(3);
    });
    int mid = 0;
    EXPECT_EQ(client_.publish(&mid, "a"), 3);
    EXPECT_EQ(client_.callbacks(2).back(), "publish " + std::to_string(mid));
}

TEST_F(AStandIn, WaitsInTheNetworkStepUntilSomethingHappens) {
    client_.connect("host", 1234, 30);
    script_->runInLoop([](mosqpp::mosquittopp&) {});
    std::size_t const before = script_->loops();
    EXPECT_FALSE(support::eventually([&] { return script_->loops() > before + 2; },
                                     std::chrono::milliseconds(100)));
}

} // namespace
