// How long the library waits where nobody tells it: seen in what it asks for, without waiting.

#include "client/client_on_a_script.hpp"
#include "data/an_endpoint.hpp"
#include "services/cleaner_recorder.hpp"
#include "support/watched.hpp"

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
using std::chrono::steady_clock;
using support::StandIn;
using testing::ElementsAre;
using testing::Pair;
using Error = MqttClient::Error;

/// Operations of the client, and the seconds that they were given.
support::Watched<std::vector<std::pair<std::string, int>>> waits;

thread_local steady_clock::time_point lastLook;
std::atomic<std::thread::id> sleeper{std::thread::id()};
/// The first time on this thread that was to be spent waiting.
std::atomic<nanoseconds> slept{nanoseconds::zero()};

Error waitInVain(char const* operation, SecondsDuration timeout) {
    waits.change([&](auto& all) { all.emplace_back(operation, timeout.toInt32()); });
    return Error::TIMEOUT;
}

} // namespace

// The linker puts these in the place of the client's operations, which are called like functions
// that take the client first, of the clock, and of the wait on a condition.

Error connectInVain(MqttClient*, std::string, int,
                    SecondsDuration) __asm__("__wrap_" ZYM_TEST_CONNECT);
Error disconnectInVain(MqttClient*, SecondsDuration) __asm__("__wrap_" ZYM_TEST_DISCONNECT);
Error publishInVain(MqttClient*, mqtt::Topic const&, std::string const&, int, bool,
                    SecondsDuration) __asm__("__wrap_" ZYM_TEST_PUBLISH_WAIT);
Error unsubscribeInVain(MqttClient*, mqtt::Topic const&, MqttClient::Subscriber*,
                        SecondsDuration) __asm__("__wrap_" ZYM_TEST_UNSUBSCRIBE_WAIT);
steady_clock::time_point realNow() __asm__("__real_" ZYM_TEST_STEADY_NOW);
steady_clock::time_point notedNow() __asm__("__wrap_" ZYM_TEST_STEADY_NOW);
int realWait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
             timespec const*) __asm__("__real_pthread_cond_clockwait");
// Visible, because the run-time library of ThreadSanitizer refers to it.
__attribute__((visibility("default"))) int
notedWait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
          timespec const*) __asm__("__wrap_pthread_cond_clockwait");

Error connectInVain(MqttClient* /*client*/, std::string /*host*/, int /*port*/,
                    SecondsDuration timeout) {
    return waitInVain("connect", timeout);
}

Error disconnectInVain(MqttClient* /*client*/, SecondsDuration timeout) {
    return waitInVain("disconnect", timeout);
}

Error publishInVain(MqttClient* /*client*/, mqtt::Topic const& /*topic*/,
                    std::string const& /*payload*/, int /*qos*/, bool /*retain*/,
                    SecondsDuration timeout) {
    return waitInVain("publishWait", timeout);
}

Error unsubscribeInVain(MqttClient* /*client*/, mqtt::Topic const& /*topic*/,
                        MqttClient::Subscriber* /*subscriber*/, SecondsDuration timeout) {
    return waitInVain("unsubscribeWait", timeout);
}

steady_clock::time_point notedNow() {
    return lastLook = realNow();
}

int notedWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
              timespec const* until) {
    auto const moment = std::chrono::seconds(until->tv_sec) + nanoseconds(until->tv_nsec);
    auto none = nanoseconds::zero();
    if (sleeper.load() == std::this_thread::get_id()) {
        slept.compare_exchange_strong(none, moment - lastLook.time_since_epoch());
    }
    return realWait(condition, mutex, clock, until);
}

namespace {

class AWaitOfItsOwn : public testing::Test {
protected:
    AWaitOfItsOwn() { take(); }

    /// What was waited for since this was asked last.
    static std::vector<std::pair<std::string, int>> take() {
        return waits.change([](auto& all) { return std::exchange(all, {}); });
    }

    static std::unique_ptr<MqttClient> makeClient(bool connectNow) {
        return std::make_unique<MqttClient>(support::uniqueId(), false, "", "host", 1883,
                                            connectNow);
    }
};

TEST_F(AWaitOfItsOwn, LastsFiveSecondsInTheConstructorOfAClient) {
    auto const client = makeClient(true);
    EXPECT_THAT(take(), ElementsAre(Pair("connect", 5)));
}

TEST_F(AWaitOfItsOwn, LastsFiveSecondsInAnEndpoint) {
    auto const client = makeClient(false);
    Endpoint endpoint(*client, "a", 2, true);
    mqtt::MqttDataBase::Lock lock(endpoint.mutex());
    EXPECT_EQ(endpoint.unsubscribeWait(lock), Error::TIMEOUT);
    EXPECT_THAT(take(), ElementsAre(Pair("unsubscribeWait", 5)));
    EXPECT_EQ(endpoint.cleanWait(), Error::TIMEOUT);
    endpoint.publishWait();
    EXPECT_THAT(take(), ElementsAre(Pair("publishWait", 5), Pair("publishWait", 5)));
}

TEST_F(AWaitOfItsOwn, LastsFiveSecondsInACleaner) {
    {
        mqtt::TopicCleaner cleaner(nullptr, support::uniqueId(), "host", 1883);
        take();
        cleaner.clean("a", AN_HOUR);
    }
    EXPECT_THAT(take(), ElementsAre(Pair("unsubscribeWait", 5), Pair("disconnect", 5)));
}

TEST_F(AWaitOfItsOwn, LastsHalfASecondInAPause) {
    sleeper = std::thread::id();
    slept = nanoseconds::zero();
    auto const client = makeClient(false);
    // Disconnected, its worker does not wait for anything else.
    StandIn::last()->setHook(StandIn::Operation::LOOP, [](auto const& call) {
        sleeper = call.thread;
        return std::nullopt;
    });
    ASSERT_TRUE(support::eventually([] { return sleeper.load() != std::thread::id(); }));
    client->pause();
    EXPECT_TRUE(support::eventually([] { return slept.load() != nanoseconds::zero(); }));
    EXPECT_EQ(slept.load(), milliseconds(500));
}

} // namespace
