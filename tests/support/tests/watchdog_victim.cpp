// A test program that hangs on purpose; watchdog_test runs and examines it.

#include "support/broker.hpp"

#include <gtest/gtest.h>

#include <future>
#include <iostream>

namespace {

[[gnu::noinline]] void hangForEver() {
    std::promise<void> never;
    never.get_future().wait();
}

TEST(AVictim, Hangs) {
    hangForEver();
}

TEST(AVictim, HangsWithABroker) {
    support::Broker const broker;
    std::cout << "broker process " << broker.pid() << std::endl;
    hangForEver();
}

TEST(AVictim, Passes) {}

class AVictimThatHangsInItsDestructor : public testing::Test {
protected:
    ~AVictimThatHangsInItsDestructor() override { hangForEver(); }
};

TEST_F(AVictimThatHangsInItsDestructor, IsNoticedToo) {}

} // namespace
