#include "data/an_endpoint.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <system_error>

namespace {

using mqtt::MqttDataBase;
using support::StandIn;
using testing::ElementsAre;
using testing::SizeIs;
using Error = mqtt::MqttClient::Error;
using Lock = MqttDataBase::Lock;
using Operation = StandIn::Operation;

TEST_F(AnEndpoint, ReadsAMessageAndThenTellsOfIt) {
    endpoint.receive(-5, "c/d", "x");
    EXPECT_THAT(endpoint.events, ElementsAre("read c/d x", "tell -5"));
}

TEST_F(AnEndpoint, TellsOfAnEmptyPayloadAfterItsReaderWasToldSo) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    deliver("a/b", "");
    EXPECT_THAT(endpoint.events, ElementsAre("read a/b empty", "tell 3 empty"));
}

TEST_F(AnEndpoint, TakesASingleZeroByteForAPayload) {
    endpoint.receive(3, "a", std::string(1, '\0'));
    EXPECT_THAT(endpoint.events, ElementsAre(std::string("read a \0", 8), "tell 3"));
}

TEST_F(AnEndpoint, HoldsItsMutexWhileItReads) {
    bool wasFree = true;
    endpoint.whileReading = [&] { wasFree = isFree(endpoint); };
    endpoint.receive(3, "a", "x");
    EXPECT_FALSE(wasFree);
    EXPECT_TRUE(isFree(endpoint));
}

TEST_F(AnEndpoint, ReleasesTheLockThatItsTellingHasKept) {
    endpoint.releasesTheLock = false;
    endpoint.receive(3, "a", "x");
    EXPECT_TRUE(isFree(endpoint));
}

TEST_F(AnEndpoint, MayBeUsedWhileItTells) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    endpoint.whileTelling = [&] {
        endpoint.publish();
        Lock lock(endpoint.mutex());
        EXPECT_EQ(endpoint.unsubscribe(lock), Error::SUCCESS);
        EXPECT_EQ(subscribe(endpoint, 4), Error::SUCCESS);
    };
    deliver("a/b", "x");
    EXPECT_THAT(published(), ElementsAre("x@a/b"));
    endpoint.whileTelling = {};
    deliver("a/b", "y");
    EXPECT_EQ(endpoint.events.back(), "tell 4");
}

struct OwnException : std::exception {};

using Failure = Named<void()>;

class AnEndpointThatCannotRead : public AnEndpoint, public testing::WithParamInterface<Failure> {};

INSTANTIATE_TEST_SUITE_P(
    For, AnEndpointThatCannotRead,
    testing::Values(Failure{"InvalidArgument", [] { throw std::invalid_argument("x"); }},
                    Failure{"OutOfRange", [] { throw std::out_of_range("x"); }},
                    Failure{"RuntimeError", [] { throw std::runtime_error("x"); }},
                    Failure{"AnyOtherException", [] { throw OwnException(); }}),
    nameOf<Failure>);

TEST_P(AnEndpointThatCannotRead, TellsNobodyAndKeepsWhatItHasReadSoFar) {
    endpoint.whileReading = GetParam().call;
    EXPECT_NO_THROW(endpoint.receive(3, "a", "x"));
    EXPECT_THAT(endpoint.events, ElementsAre("read a x"));
    EXPECT_EQ(endpoint.value, "x");
    EXPECT_TRUE(isFree(endpoint));
}

TEST_P(AnEndpointThatCannotRead, ReadsTheNextMessage) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    endpoint.whileReading = GetParam().call;
    deliver("a/b", "bad");
    endpoint.whileReading = {};
    deliver("a/b", "good");
    EXPECT_THAT(endpoint.events, ElementsAre("read a/b bad", "read a/b good", "tell 3"));
}

TEST_F(AnEndpoint, LetsPassWhatIsNoException) {
    endpoint.whileReading = [] { throw 1; };
    EXPECT_THROW(endpoint.receive(3, "a", "x"), int);
    EXPECT_THAT(endpoint.events, ElementsAre("read a x"));
    EXPECT_TRUE(isFree(endpoint));
}

TEST_F(AnEndpoint, DoesNotHarmTheClientNorTheOthersByWhatIsNoException) {
    Endpoint other(*client_, "a/b", 2, true);
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    ASSERT_EQ(subscribe(other, 4), Error::SUCCESS);
    endpoint.whileReading = [] { throw 1; };
    deliver("a/b", "bad");
    endpoint.whileReading = {};
    deliver("a/b", "good");
    EXPECT_THAT(endpoint.events, ElementsAre("read a/b bad", "read a/b good", "tell 3"));
    EXPECT_THAT(other.events, ElementsAre("read a/b bad", "tell 4", "read a/b good", "tell 4"));
}

// Locks

struct Locked {
    char const* name;
    std::function<void(MqttDataBase&, Lock&)> call;
    Operation operation;
};

void PrintTo(Locked const& locked, std::ostream* out) {
    *out << locked.name;
}

class AnOperationWithALock : public AnEndpoint, public testing::WithParamInterface<Locked> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnOperationWithALock,
    testing::Values(
        Locked{"Subscribe",
               [](auto& endpoint, auto& lock) { static_cast<void>(endpoint.subscribe(1, lock)); },
               Operation::SUBSCRIBE},
        Locked{"Unsubscribe", [](auto& endpoint, auto& lock) { endpoint.unsubscribe(lock); },
               Operation::UNSUBSCRIBE},
        Locked{"UnsubscribeWait",
               [](auto& endpoint, auto& lock) { endpoint.unsubscribeWait(lock); },
               Operation::UNSUBSCRIBE},
        Locked{"Publish", [](auto& endpoint, auto& lock) { endpoint.publish(lock); },
               Operation::PUBLISH},
        Locked{"PublishWait", [](auto& endpoint, auto& lock) { endpoint.publishWait(lock); },
               Operation::PUBLISH},
        Locked{"Clean", [](auto& endpoint, auto& lock) { endpoint.clean(false, lock); },
               Operation::PUBLISH},
        Locked{"CleanWait", [](auto& endpoint, auto& lock) { endpoint.clean(true, lock); },
               Operation::PUBLISH}),
    nameOf<Locked>);

TEST_P(AnOperationWithALock, ReleasesItBeforeItCallsTheClient) {
    if (GetParam().operation == Operation::UNSUBSCRIBE) {
        ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    }
    std::atomic<bool> wasFree{false};
    script_->setHook(GetParam().operation, [&](auto const&) {
        wasFree = isFree(endpoint);
        return std::optional<int>();
    });
    Lock lock(endpoint.mutex());
    GetParam().call(endpoint, lock);
    EXPECT_TRUE(wasFree);
    EXPECT_FALSE(lock.owns_lock());
    script_->setHook(GetParam().operation, {});
}

TEST_P(AnOperationWithALock, RefusesOneThatIsNotLockedAndLeavesTheClientAlone) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    auto const before = script_->calls().size();
    Lock deferred(endpoint.mutex(), std::defer_lock);
    Lock none;
    for (auto* const lock : {&deferred, &none}) {
        try {
            GetParam().call(endpoint, *lock);
            ADD_FAILURE() << "nothing was raised";
        } catch (std::system_error const& error) {
            EXPECT_EQ(error.code().value(), 1);
            EXPECT_EQ(error.code(), std::errc::operation_not_permitted);
        }
    }
    EXPECT_THAT(script_->calls(), SizeIs(before));
    deliver("a/b", "x");
    EXPECT_THAT(endpoint.events, ElementsAre("read a/b x", "tell 3"));
}

} // namespace
