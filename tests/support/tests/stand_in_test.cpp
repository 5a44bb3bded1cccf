#include "support/stand_in/stand_in.hpp"

#include <gmock/gmock.h>

namespace {

using support::StandIn;
using Operation = StandIn::Operation;
using testing::ElementsAre;

class Client : public mosqpp::mosquittopp {
public:
    Client() : mosquittopp("client", true) {}

    void on_connect(int code) override { record("connect", code); }
    void on_disconnect(int code) override { record("disconnect", code); }
    void on_publish(int mid) override { record("publish", mid); }
    void on_unsubscribe(int mid) override { record("unsubscribe", mid); }
    void on_message(mosquitto_message const* message) override {
        record(std::string(message->topic) + ": " + static_cast<char const*>(message->payload),
               message->qos);
    }
    void record(std::string const& what, int number) {
        callbacks.push_back(what + " " + std::to_string(number));
    }

    std::vector<std::string> callbacks;
};

class AStandIn : public testing::Test {
protected:
    /// The callbacks of the network steps that have something to do.
    std::vector<std::string> callbacks() {
        client_.callbacks.clear();
        std::size_t before = 0;
        do {
            before = client_.callbacks.size();
            client_.loop(0, 1);
        } while (client_.callbacks.size() > before);
        return client_.callbacks;
    }

    Client client_;
    std::shared_ptr<StandIn> script_ = StandIn::withClientId("client");
};

TEST_F(AStandIn, BehavesLikeTheLibraryWithABroker) {
    EXPECT_EQ(client_.connect("host", 1234, 30), 0);
    EXPECT_EQ(client_.publish(nullptr, "a", 3, "x\0y", 2, true), 0);
    EXPECT_EQ(client_.unsubscribe(nullptr, "a"), 0);
    script_->deliver("a/b", "payload", 1);
    EXPECT_THAT(callbacks(),
                ElementsAre("connect 0", "publish 2", "unsubscribe 3", "a/b: payload 1"));
    EXPECT_EQ(client_.disconnect(), 0);
    EXPECT_THAT(callbacks(), ElementsAre("disconnect 0"));
    auto const publication = script_->calls(Operation::PUBLISH).at(0);
    EXPECT_EQ(publication.payload, std::string("x\0y", 3));
    EXPECT_EQ(publication.mid, 2);
    EXPECT_TRUE(publication.retain);
}

TEST_F(AStandIn, HasNoConnectionWhenItWasRefusedOrLost) {
    EXPECT_EQ(client_.publish(nullptr, "a"), MOSQ_ERR_NO_CONN);
    script_->setConnack(5);
    client_.connect("host", 1234, 30);
    EXPECT_THAT(callbacks(), ElementsAre("connect 5", "disconnect 5"));
    EXPECT_EQ(client_.subscribe(nullptr, "a", 0), MOSQ_ERR_NO_CONN);
    script_->setConnack(0);
    client_.connect("host", 1234, 30);
    script_->loseConnection();
    EXPECT_THAT(callbacks(), ElementsAre("connect 0", "disconnect 7"));
    EXPECT_EQ(client_.disconnect(), MOSQ_ERR_NO_CONN);
}

TEST_F(AStandIn, ReturnsWhatTheScriptSays) {
    client_.connect("host", 1234, 30);
    script_->setHook(Operation::PUBLISH, [](auto const&) { return std::optional<int>(3); });
    script_->answer(Operation::PUBLISH, {7, 9});
    for (int const result : {7, 9, 3}) {
        EXPECT_EQ(client_.publish(nullptr, "a"), result);
    }
    EXPECT_THAT(callbacks(), ElementsAre("connect 0"));
}

} // namespace
