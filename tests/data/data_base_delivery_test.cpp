// How an endpoint handles a message, and which locks it holds.

#include "data/an_endpoint.hpp"
#include "support/log_lines.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>

namespace {

using mqtt::MqttDataBase;
using support::StandIn;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;
using Error = mqtt::MqttClient::Error;
using Lock = MqttDataBase::Lock;
using Operation = StandIn::Operation;

TEST_F(AnEndpoint, ReadsAMessageAndThenNotifies) {
    ASSERT_EQ(subscribe(endpoint, -5), Error::SUCCESS);
    deliver("a/b", "x");
    deliver("a/b", "");
    deliver("a/b", std::string(1, '\0')); // not empty
    EXPECT_THAT(endpoint.events,
                ElementsAre("read a/b x", "notify -5", "read a/b empty", "notify -5 empty",
                            std::string("read a/b \0", 10), "notify -5"));
}

TEST_F(AnEndpoint, HoldsItsMutexWhileItReadsOnly) {
    bool wasFree = true;
    endpoint.whileReading = [&] { wasFree = isFree(endpoint); };
    endpoint.releasesTheLock = false; // so that it is released for the notification's sake
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    deliver("a/b", "x");
    EXPECT_FALSE(wasFree);
    EXPECT_TRUE(isFree(endpoint));
}

TEST_F(AnEndpoint, MayBeUsedWhileItNotifies) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    endpoint.whileNotifying = [&] {
        endpoint.publish();
        Lock lock(endpoint.mutex());
        EXPECT_EQ(endpoint.unsubscribe(lock), Error::SUCCESS);
        EXPECT_EQ(subscribe(endpoint, 4), Error::SUCCESS);
    };
    deliver("a/b", "x");
    EXPECT_THAT(published(), ElementsAre("x@a/b"));
    endpoint.whileNotifying = {};
    deliver("a/b", "y");
    EXPECT_EQ(endpoint.events.back(), "notify 4");
}

struct OwnException : std::exception {};

TEST_F(AnEndpoint, DropsWhatItCannotReadAndReadsTheNextMessage) {
    Endpoint other(*client_, "a/b", 2, true);
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    ASSERT_EQ(subscribe(other, 4), Error::SUCCESS);
    support::LogLines const log(mqtt::LogLevel::ERROR);
    for (auto const& failure : std::initializer_list<std::function<void()>>{
             [] { throw std::invalid_argument("x"); }, [] { throw std::out_of_range("x"); },
             [] { throw std::runtime_error("y"); }, [] { throw std::bad_alloc(); },
             [] { throw OwnException(); }, [] { throw 1; }}) {
        endpoint.events.clear();
        other.events.clear();
        endpoint.whileReading = failure;
        deliver("a/b", "bad");
        EXPECT_EQ(endpoint.value, "bad") << "what was read so far stays";
        EXPECT_TRUE(isFree(endpoint));
        endpoint.whileReading = {};
        deliver("a/b", "good");
        EXPECT_THAT(endpoint.events, ElementsAre("read a/b bad", "read a/b good", "notify 3"));
        EXPECT_THAT(other.events,
                    ElementsAre("read a/b bad", "notify 4", "read a/b good", "notify 4"));
    }
    EXPECT_THAT(log.copy(), ElementsAre(EndsWith(": document dropped: a/b: x"),
                                        EndsWith(": document dropped: a/b: x"),
                                        EndsWith(": document dropped: a/b: y"),
                                        HasSubstr(": document dropped: a/b: "),
                                        HasSubstr(": document dropped: a/b: "),
                                        HasSubstr(": subscriber of a/b has thrown: ")));
    EXPECT_EQ(client_->statistics().droppedDocuments.unreadable, 4U);
    EXPECT_EQ(client_->statistics().droppedDocuments.noMemory, 1U);
}

// Locks

/// An operation that takes a lock, and what it lets the client call.
struct LockedOperation {
    char const* name;
    std::function<void(MqttDataBase&, Lock&)> call;
    Operation result;
};

LockedOperation const LOCKED_OPERATIONS[] = {
    {"subscribe",
     [](auto& endpoint, auto& lock) { static_cast<void>(endpoint.subscribe(1, lock)); },
     Operation::SUBSCRIBE},
    {"unsubscribe", [](auto& endpoint, auto& lock) { endpoint.unsubscribe(lock); },
     Operation::UNSUBSCRIBE},
    {"unsubscribeWait", [](auto& endpoint, auto& lock) { endpoint.unsubscribeWait(lock); },
     Operation::UNSUBSCRIBE},
    {"publish", [](auto& endpoint, auto& lock) { endpoint.publish(lock); }, Operation::PUBLISH},
    {"publishWait", [](auto& endpoint, auto& lock) { endpoint.publishWait(lock); },
     Operation::PUBLISH},
    {"clean", [](auto& endpoint, auto& lock) { endpoint.clean(false, lock); }, Operation::PUBLISH},
    {"clean and wait", [](auto& endpoint, auto& lock) { endpoint.clean(true, lock); },
     Operation::PUBLISH}};

class AnOperationWithALock : public AnEndpoint {};

TEST_F(AnOperationWithALock, ReleasesItBeforeItCallsTheClient) {
    for (auto const& [name, call, result] : LOCKED_OPERATIONS) {
        SCOPED_TRACE(name);
        ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
        std::atomic<bool> wasFree{false};
        script_->setHook(result, [&](auto const&) {
            wasFree = isFree(endpoint);
            return std::optional<int>();
        });
        Lock lock(endpoint.mutex());
        call(endpoint, lock);
        EXPECT_TRUE(wasFree);
        EXPECT_FALSE(lock.owns_lock());
        script_->setHook(result, {});
        endpoint.release();
    }
}

TEST_F(AnOperationWithALock, RefusesOneThatIsNotLockedAndLeavesTheClientAlone) {
    ASSERT_EQ(subscribe(endpoint, 3), Error::SUCCESS);
    auto const before = script_->calls().size();
    Lock deferred(endpoint.mutex(), std::defer_lock);
    Lock none;
    for (auto const& operation : LOCKED_OPERATIONS) {
        SCOPED_TRACE(operation.name);
        for (auto* const lock : {&deferred, &none}) {
            expectNotPermitted([&] { operation.call(endpoint, *lock); });
        }
    }
    EXPECT_THAT(script_->calls(), SizeIs(before));
    deliver("a/b", "x");
    EXPECT_THAT(endpoint.events, ElementsAre("read a/b x", "notify 3"));
}

} // namespace
