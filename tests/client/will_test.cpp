#include "client/broker_session.hpp"

namespace {

using conv::ComState;
using mqtt::test::Message;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class AWill : public AClientAtABroker {
protected:
    void setWill(std::string const& payload) {
        ASSERT_EQ(client_->setWill("will", payload, 2, true), Error::SUCCESS);
    }
};

TEST_F(AWill, IsPublishedWhenTheClientEndsWithoutADisconnectUnlessItWasCleared) {
    std::string const payload("with \0 byte", 11);
    setWill("replaced");
    setWill(payload);
    ASSERT_EQ(client_->setWill("", "refused", 2, false), Error::INVALID_PARAMETER);
    connect();
    client_.reset();
    ASSERT_TRUE(peer_.waitForMessages(1));
    EXPECT_THAT(peer_.messages(), ElementsAre(Message{"will", payload, 2, false}));
    EXPECT_EQ(mqtt::test::retained(broker_, "will"), (Message{"will", payload, 2, true}));

    client_ = idleClient();
    setWill("cleared");
    ASSERT_EQ(client_->clearWill(), Error::SUCCESS);
    connect();
    client_.reset();
    peer_.publish("marker", "end");
    ASSERT_TRUE(peer_.waitFor([](auto const& all) { return all.back().payload == "end"; }));
    EXPECT_THAT(peer_.payloads(), Not(Contains("cleared")));
}

TEST_F(AWill, CanBeChangedWhileDisconnectedOnly) {
    auto const expectRefusal = [&] {
        EXPECT_EQ(client_->setWill("will", "other", 2, false), Error::CONNECTION_PENDING);
        EXPECT_EQ(client_->clearWill(), Error::CONNECTION_PENDING);
    };
    connect();
    expectRefusal();
    client_->registerListener(&states_);
    broker_.kill();
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    expectRefusal();
    client_ = idleClient();
    ASSERT_EQ(client_->connect("", -1, WAIT_SECONDS), Error::ERRNO);
    ASSERT_EQ(client_->communicationState(), ComState::CONNECTING);
    expectRefusal();
}

} // namespace
