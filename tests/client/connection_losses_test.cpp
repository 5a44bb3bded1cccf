#include "client/connection_losses.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using mqtt::ConnectionLosses;
using std::chrono_literals::operator""s;

/// Losses of connections in a row, each after the time given.
class LossesInARow : public testing::Test {
protected:
    void loseAfter(std::chrono::seconds lifetime) {
        losses_.connectionAccepted(now_);
        now_ += lifetime;
        losses_.connectionEnded(now_, false);
    }
    void loseAlone(int messageId) {
        losses_.connectionAccepted(now_);
        losses_.lostAlone(messageId);
        losses_.connectionEnded(now_, false);
    }

    ConnectionLosses losses_;
    ConnectionLosses::Clock::time_point now_{100'000s};
};

TEST_F(LossesInARow, MakeThePublicationSuspectedThatIsUnacknowledgedAtTwo) {
    losses_.handedOver(7);
    loseAfter(3600s);
    EXPECT_FALSE(losses_.isPublicationSuspected());
    EXPECT_FALSE(losses_.isCause(7));
    loseAfter(1s);
    EXPECT_TRUE(losses_.isPublicationSuspected());
    EXPECT_TRUE(losses_.isCause(7)) << "it was the only one";
}

TEST_F(LossesInARow, DoNotCountIfEverythingIsAcknowledged) {
    losses_.handedOver(7);
    loseAfter(1s);
    losses_.acknowledged(6); // another one
    loseAfter(1s);
    EXPECT_TRUE(losses_.isPublicationSuspected());
    losses_.acknowledged(7);
    loseAfter(1s);
    EXPECT_FALSE(losses_.isPublicationSuspected());
}

TEST_F(LossesInARow, DoNotCountIfAConnectionLivesLong) {
    losses_.handedOver(7);
    loseAfter(1s);
    loseAfter(1s);
    loseAfter(ConnectionLosses::EARLY);
    EXPECT_FALSE(losses_.isPublicationSuspected());
}

TEST_F(LossesInARow, DoNotCountIfTheyAreIntendedOrTheBrokerDidNotAccept) {
    losses_.handedOver(7);
    loseAfter(1s);
    losses_.connectionEnded(now_, false);
    losses_.connectionAccepted(now_);
    losses_.connectionEnded(now_, true);
    losses_.connectionEnded(now_, false);
    EXPECT_FALSE(losses_.isPublicationSuspected());
}

TEST_F(LossesInARow, AmongOthersHaveACauseOnlyIfItIsLostAloneTwice) {
    losses_.handedOver(7);
    losses_.handedOver(8);
    loseAfter(1s);
    loseAfter(1s);
    EXPECT_TRUE(losses_.isPublicationSuspected());
    EXPECT_FALSE(losses_.isCause(7));
    loseAlone(8);
    EXPECT_FALSE(losses_.isCause(7)) << "another one was lost";
    loseAlone(7);
    EXPECT_TRUE(losses_.isCause(7));
    EXPECT_FALSE(losses_.isCause(8));
}

TEST_F(LossesInARow, HaveNoCauseThatTheLibraryDidNotHaveAtAllThree) {
    // Message ids begin again after 65,535.
    for (int const late : {8, 65'535, 1}) {
        SCOPED_TRACE(late);
        int const early = late == 1 ? 65'535 : late - 1;
        ConnectionLosses fresh;
        auto const lose = [&](int alone) {
            fresh.connectionAccepted(now_);
            fresh.lostAlone(alone);
            fresh.connectionEnded(now_, false);
        };
        fresh.handedOver(early - 1);
        fresh.handedOver(early);
        lose(0);
        fresh.handedOver(late);
        lose(late);
        EXPECT_FALSE(fresh.isCause(late));
        lose(late);
        EXPECT_TRUE(fresh.isCause(late));
    }
}

} // namespace
