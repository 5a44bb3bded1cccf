#include <conv/com_state.hpp>
#include <conv/communication_status.hpp>
#include <conv/identification.hpp>
#include <conv/seconds_duration.hpp>
#include <conv/service_status.hpp>
#include <conv/unix_time.hpp>
#include <zym/common/binder.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

namespace {

using conv::ComState;
using conv::SecondsDuration;
using Clock = std::chrono::steady_clock;
using zym::common::Binder;

std::int32_t countOf(SecondsDuration duration) {
    return duration.toInt32();
}

TEST(ASecondsDuration, IsMadeFromANumberWithoutSayingSo) {
    EXPECT_EQ(countOf(5), 5);
    EXPECT_EQ(countOf(0), 0);
    EXPECT_EQ(SecondsDuration().toInt32(), 0);
}

TEST(ASecondsDuration, GivesItsBitPatternAsASignedNumber) {
    EXPECT_EQ(SecondsDuration(0x7fffffffU).toInt32(), INT32_MAX);
    EXPECT_EQ(SecondsDuration(0x80000000U).toInt32(), INT32_MIN);
    EXPECT_EQ(SecondsDuration(0xfffffffeU).toInt32(), -2);
    EXPECT_EQ(SecondsDuration(0xffffffffU).toInt32(), -1);
    EXPECT_EQ(SecondsDuration::NO_TIMEOUT.toInt32(), -1);
}

TEST(ASecondsDuration, ReachesSoManySecondsFromNow) {
    auto const now = Clock::now();
    EXPECT_EQ(SecondsDuration(0).toTimepoint(now), now);
    EXPECT_EQ(SecondsDuration(30).toTimepoint(now) - now, std::chrono::seconds(30));
    EXPECT_EQ(SecondsDuration(0xfffffffeU).toTimepoint(now) - now,
              std::chrono::seconds(4294967294));
}

TEST(ASecondsDuration, ReachesTheFarEndOfTimeWithoutATimeout) {
    EXPECT_EQ(SecondsDuration::NO_TIMEOUT.toTimepoint(Clock::now()), Clock::time_point::max());
}

TEST(ASecondsDuration, NeverReachesBeyondTheFarEndOfTime) {
    auto const late = Clock::time_point::max() - std::chrono::seconds(10);
    EXPECT_EQ(SecondsDuration(9).toTimepoint(late), late + std::chrono::seconds(9));
    EXPECT_EQ(SecondsDuration(11).toTimepoint(late), Clock::time_point::max());
}

TEST(ASecondsDuration, IsALiteralType) {
    static_assert(SecondsDuration(7).toInt32() == 7);
    static_assert(SecondsDuration::NO_TIMEOUT.toInt32() == -1);
}

TEST(ADefaultUnixTime, IsTheInvalidTime) {
    conv::UnixTime const time;
    EXPECT_EQ(time.seconds, 4294967295.0);
    EXPECT_EQ(time.valid, 0);
}

TEST(AUnixTimeOfANumber, IsValid) {
    conv::UnixTime const time(1700000000.5);
    EXPECT_EQ(time.seconds, 1700000000.5);
    EXPECT_EQ(time.valid, 1);
}

TEST(TheCommunicationStates, HaveTheirNumbersInEightBits) {
    static_assert(sizeof(ComState) == 1, "eight bits");
    EXPECT_EQ(static_cast<int>(ComState::UNKNOWN), 0);
    EXPECT_EQ(static_cast<int>(ComState::DISCONNECTED), 1);
    EXPECT_EQ(static_cast<int>(ComState::CONNECTED), 2);
    EXPECT_EQ(static_cast<int>(ComState::CONNECTION_LOST), 3);
    EXPECT_EQ(static_cast<int>(ComState::CONNECTING), 4);
    EXPECT_EQ(static_cast<int>(static_cast<ComState>(200)), 200);
}

TEST(TheBinderErrors, HaveTheirNumbersInEightBits) {
    static_assert(sizeof(Binder::Error) == 1, "eight bits");
    EXPECT_EQ(static_cast<int>(Binder::Error::SUCCESS), 0);
    EXPECT_EQ(static_cast<int>(Binder::Error::FAILED), 1);
    EXPECT_EQ(static_cast<int>(Binder::Error::BUSY), 2);
    EXPECT_EQ(static_cast<int>(Binder::Error::TIMEOUT), 3);
    EXPECT_EQ(static_cast<int>(Binder::Error::NO_SERVER), 4);
    EXPECT_EQ(static_cast<int>(Binder::Error::ALREADY_BOUND), 5);
    EXPECT_EQ(static_cast<int>(Binder::Error::NOT_BOUND), 6);
    EXPECT_EQ(static_cast<int>(Binder::Error::REFUSED), 7);
    EXPECT_EQ(static_cast<int>(Binder::Error::NOT_SYNCHRONIZED), 8);
    EXPECT_EQ(static_cast<int>(Binder::Error::CANCELLED), 9);
    EXPECT_EQ(static_cast<int>(static_cast<Binder::Error>(239)), 239);
}

TEST(ADefaultCommunicationStatus, KnowsNothing) {
    conv::CommunicationStatus const status;
    EXPECT_EQ(status.state, ComState::UNKNOWN);
    EXPECT_EQ(status.since.valid, 0);
}

TEST(ADefaultServiceStatus, IsAllZero) {
    conv::ServiceStatus const status;
    EXPECT_EQ(status.operating, 0);
    EXPECT_EQ(status.health, 0);
}

TEST(ADefaultIdentification, IsEmpty) {
    conv::Identification const id;
    for (std::string const* text :
         {&id.uuid, &id.manufacturer, &id.model, &id.serial, &id.physicalName, &id.name,
          &id.interface, &id.version, &id.location, &id.contact}) {
        EXPECT_EQ(*text, "");
    }
}

} // namespace
