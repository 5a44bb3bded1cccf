// A test program that goes wrong on purpose; watchdog_test runs it and looks on.

#include "support/broker.hpp"
#include "support/watchdog.hpp"
#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <iostream>
#include <mutex>

namespace {

[[gnu::noinline]] void hangForEver() {
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock<std::mutex> lock(mutex);
    never.wait(lock, [] { return false; });
}

void tellOf(support::Broker const& broker) {
    std::cout << "broker process " << broker.pid() << " port " << broker.port() << std::endl;
}

TEST(AVictim, Hangs) {
    hangForEver();
}

TEST(AVictim, HangsWithABroker) {
    support::Broker broker;
    tellOf(broker);
    hangForEver();
}

TEST(AVictim, HangsAfterItAskedForMoreTime) {
    support::Watchdog::limit(std::chrono::seconds(1));
    hangForEver();
}

TEST(AVictim, Passes) {
    support::Watched<int> value(1);
    EXPECT_TRUE(value.waitFor([](int v) { return v == 1; }));
}

class AVictimThatHangsInItsDestructor : public testing::Test {
protected:
    ~AVictimThatHangsInItsDestructor() override { hangForEver(); }
};

TEST_F(AVictimThatHangsInItsDestructor, IsNoticedToo) {}

} // namespace
