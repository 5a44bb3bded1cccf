// The timeouts that the library chooses itself, seen in its calls, without waiting.

#include "client/client_on_a_script.hpp"
#include "data/an_endpoint.hpp"
#include "mqtt/test/watched.hpp"
#include "services/cleaner_recorder.hpp"

#include <mqtt/time_base.hpp>

#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using conv::SecondsDuration;
using mqtt::MqttClient;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using support::StandIn;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using Error = MqttClient::Error;

/// Operations of the client, and their timeouts in seconds.
mqtt::test::Watched<std::vector<std::pair<std::string, int>>> waits;

std::atomic<std::thread::id> waitingThread{std::thread::id()};
/// How long the first wait of `waitingThread` was still to last when it began.
std::atomic<nanoseconds> waitTime{nanoseconds::zero()};

Error recordAndTimeOut(char const* operation, SecondsDuration timeout) {
    waits.change([&](auto& all) { all.emplace_back(operation, timeout.toInt32()); });
    return Error::TIMEOUT;
}

} // namespace

// The linker replaces the operations of the client and the wait on a condition by these.
// A member function is called like a function that takes the object first.

Error recordedConnect(MqttClient*, std::string, int,
                      SecondsDuration) __asm__("__wrap_" ZYM_TEST_CONNECT);
Error recordedDisconnect(MqttClient*, SecondsDuration) __asm__("__wrap_" ZYM_TEST_DISCONNECT);
Error recordedPublish(MqttClient*, mqtt::Topic const&, std::string const&, int, bool,
                      SecondsDuration) __asm__("__wrap_" ZYM_TEST_PUBLISH_WAIT);
Error recordedUnsubscribe(MqttClient*, mqtt::Topic const&, MqttClient::Subscriber*,
                          SecondsDuration) __asm__("__wrap_" ZYM_TEST_UNSUBSCRIBE_WAIT);
int realWait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
             timespec const*) __asm__("__real_pthread_cond_clockwait");
// Visible, because the run-time library of ThreadSanitizer refers to it.
__attribute__((visibility("default"))) int
recordedWait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
             timespec const*) __asm__("__wrap_pthread_cond_clockwait");

Error recordedConnect(MqttClient* /*client*/, std::string /*host*/, int /*port*/,
                      SecondsDuration timeout) {
    return recordAndTimeOut("connect", timeout);
}

Error recordedDisconnect(MqttClient* /*client*/, SecondsDuration timeout) {
    return recordAndTimeOut("disconnect", timeout);
}

Error recordedPublish(MqttClient* /*client*/, mqtt::Topic const& /*topic*/,
                      std::string const& /*payload*/, int /*qos*/, bool /*retain*/,
                      SecondsDuration timeout) {
    return recordAndTimeOut("publishWait", timeout);
}

Error recordedUnsubscribe(MqttClient* /*client*/, mqtt::Topic const& /*topic*/,
                          MqttClient::Subscriber* /*subscriber*/, SecondsDuration timeout) {
    return recordAndTimeOut("unsubscribeWait", timeout);
}

int recordedWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                 timespec const* until) {
    auto const moment = std::chrono::seconds(until->tv_sec) + nanoseconds(until->tv_nsec);
    auto none = nanoseconds::zero();
    if (waitingThread.load() == std::this_thread::get_id()) {
        waitTime.compare_exchange_strong(
            none, moment - std::chrono::steady_clock::now().time_since_epoch());
    }
    return realWait(condition, mutex, clock, until);
}

namespace {

class ATimeoutOfTheLibrary : public testing::Test {
protected:
    ATimeoutOfTheLibrary() { takeWaits(); }

    /// The recorded operations since the last call.
    static std::vector<std::pair<std::string, int>> takeWaits() {
        return waits.change([](auto& all) { return std::exchange(all, {}); });
    }

    static std::unique_ptr<MqttClient> makeClient(bool connectNow) {
        return std::make_unique<MqttClient>(mqtt::test::uniqueId(), false, "", "host", 1883,
                                            connectNow);
    }
};

TEST_F(ATimeoutOfTheLibrary, IsFiveSecondsInTheConstructorOfAClient) {
    auto const client = makeClient(true);
    EXPECT_THAT(takeWaits(), ElementsAre(Pair("connect", 5)));
}

TEST_F(ATimeoutOfTheLibrary, IsFiveSecondsInAnEndpoint) {
    auto const client = makeClient(false);
    Endpoint endpoint(*client, "a", 2, true);
    mqtt::MqttDataBase::Lock lock(endpoint.mutex());
    EXPECT_EQ(endpoint.unsubscribeWait(lock), Error::TIMEOUT);
    EXPECT_THAT(takeWaits(), ElementsAre(Pair("unsubscribeWait", 5)));
    EXPECT_EQ(endpoint.cleanWait(), Error::TIMEOUT);
    lock.lock();
    EXPECT_EQ(endpoint.clean(true, lock), Error::TIMEOUT);
    endpoint.publishWait();
    lock.lock();
    endpoint.publishWait(lock);
    EXPECT_THAT(takeWaits(), AllOf(SizeIs(4), Each(Pair("publishWait", 5))));
}

TEST_F(ATimeoutOfTheLibrary, IsFiveSecondsInACleaner) {
    CleanerRecorder recorder;
    {
        mqtt::TopicCleaner cleaner(&recorder, mqtt::test::uniqueId(), "host", 1883);
        takeWaits();
        cleaner.clean("a", milliseconds(0));
        EXPECT_TRUE(cleaner.waitAllTasks(mqtt::test::DEADLINE));
        cleaner.clean("b", LONG_DURATION);
    }
    EXPECT_THAT(takeWaits(), ElementsAre(Pair("unsubscribeWait", 5), Pair("unsubscribeWait", 5),
                                         Pair("disconnect", 5)));
    EXPECT_THAT(recorder.calls(), ElementsAre("a", ALL)) << "without the broker's answer";
}

TEST_F(ATimeoutOfTheLibrary, IsFiveSecondsInTheFirstTerminationOfATimeBaseAdaptor) {
    auto const client = makeClient(false);
    mqtt::SynchronizedTimeBaseMqttAdaptor adaptor(*client, "svc", mqtt::test::uniqueId());
    adaptor.terminate();
    EXPECT_THAT(takeWaits(), ElementsAre(Pair("unsubscribeWait", 5)));
    adaptor.terminate();
    EXPECT_THAT(takeWaits(), IsEmpty());
}

TEST_F(ATimeoutOfTheLibrary, IsAtMostHalfASecondInAPause) {
    waitingThread = std::thread::id();
    waitTime = nanoseconds::zero();
    auto const client = makeClient(false);
    // Disconnected, its worker does not wait for anything else.
    StandIn::last()->setHook(StandIn::Operation::LOOP, [](auto const& call) {
        waitingThread = call.thread;
        return std::nullopt;
    });
    ASSERT_TRUE(mqtt::test::eventually([] { return waitingThread.load() != std::thread::id(); }));
    client->pause();
    EXPECT_TRUE(mqtt::test::eventually([] { return waitTime.load() != nanoseconds::zero(); }));
    EXPECT_LE(waitTime.load(), milliseconds(500));
}

} // namespace
