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

TEST(ASecondsDuration, IsConvertedFromANumberAndGivesItsBitPatternAsASignedOne) {
    static_assert(std::is_convertible_v<unsigned, SecondsDuration>);
    static_assert(SecondsDuration().toInt32() == 0);
    static_assert(SecondsDuration(7).toInt32() == 7);
    static_assert(SecondsDuration(0x7fffffffU).toInt32() == INT32_MAX);
    static_assert(SecondsDuration(0x80000000U).toInt32() == INT32_MIN);
    static_assert(SecondsDuration(0xfffffffeU).toInt32() == -2);
    static_assert(SecondsDuration::NO_TIMEOUT.toInt32() == -1);
    EXPECT_EQ(SecondsDuration(0xffffffffU).toInt32(), -1);
}

TEST(ASecondsDuration, GivesATimepointSoManySecondsLaterAtMostTheLastOne) {
    auto const now = Clock::now();
    EXPECT_EQ(SecondsDuration(0).toTimepoint(now), now);
    EXPECT_EQ(SecondsDuration(30).toTimepoint(now) - now, std::chrono::seconds(30));
    EXPECT_EQ(SecondsDuration(0xfffffffeU).toTimepoint(now) - now,
              std::chrono::seconds(4294967294));
    EXPECT_EQ(SecondsDuration::NO_TIMEOUT.toTimepoint(now), Clock::time_point::max());
    auto const late = Clock::time_point::max() - std::chrono::seconds(10);
    EXPECT_EQ(SecondsDuration(9).toTimepoint(late), late + std::chrono::seconds(9));
    EXPECT_EQ(SecondsDuration(11).toTimepoint(late), Clock::time_point::max());
}

TEST(AUnixTime, IsInvalidByDefaultAndValidFromANumber) {
    conv::UnixTime const unknown;
    EXPECT_EQ(unknown.seconds, 4294967295.0);
    EXPECT_EQ(unknown.valid, 0);
    conv::UnixTime const time(1700000000.5);
    EXPECT_EQ(time.seconds, 1700000000.5);
    EXPECT_EQ(time.valid, 1);
}

template <class Enumeration>
constexpr bool has(Enumeration value, int number) {
    return sizeof(Enumeration) == 1 && static_cast<int>(value) == number;
}

TEST(TheCommunicationStates, HaveTheirNumbersInEightBits) {
    static_assert(has(ComState::UNKNOWN, 0) && has(ComState::DISCONNECTED, 1));
    static_assert(has(ComState::CONNECTED, 2) && has(ComState::CONNECTION_LOST, 3));
    static_assert(has(ComState::CONNECTING, 4) && has(static_cast<ComState>(200), 200));
}

TEST(TheBinderErrors, HaveTheirNumbersInEightBits) {
    using Error = Binder::Error;
    static_assert(has(Error::SUCCESS, 0) && has(Error::FAILED, 1) && has(Error::BUSY, 2));
    static_assert(has(Error::TIMEOUT, 3) && has(Error::NO_SERVER, 4));
    static_assert(has(Error::ALREADY_BOUND, 5) && has(Error::NOT_BOUND, 6));
    static_assert(has(Error::REFUSED, 7) && has(Error::NOT_SYNCHRONIZED, 8));
    static_assert(has(Error::CANCELLED, 9) && has(static_cast<Error>(239), 239));
}

TEST(TheValueTypes, AreEmptyByDefault) {
    conv::CommunicationStatus const communication;
    EXPECT_EQ(communication.state, ComState::UNKNOWN);
    EXPECT_EQ(communication.since.valid, 0);
    conv::ServiceStatus const service;
    EXPECT_EQ(service.operating, 0);
    EXPECT_EQ(service.health, 0);
    conv::Identification const id;
    for (std::string const* text :
         {&id.uuid, &id.manufacturer, &id.model, &id.serial, &id.physicalName, &id.name,
          &id.interface, &id.version, &id.location, &id.contact}) {
        EXPECT_EQ(*text, "");
    }
}

} // namespace
