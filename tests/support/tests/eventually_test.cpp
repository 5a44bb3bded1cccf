#include "support/eventually.hpp"
#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace std::chrono_literals;

TEST(Eventually, SeesAConditionThatComesTrueLater) {
    std::atomic<int> looks{0};
    EXPECT_TRUE(support::eventually([&] { return ++looks == 5; }));
    EXPECT_EQ(looks, 5);
}

TEST(Eventually, GivesUpAtItsDeadline) {
    EXPECT_FALSE(support::eventually([] { return false; }, 10ms));
}

TEST(AWatchedValue, WakesWhoWaitsForAChange) {
    support::Watched<int> value(0);
    std::thread writer([&] { value.change([](int& v) { v = 7; }); });
    EXPECT_TRUE(value.waitFor([](int v) { return v == 7; }));
    writer.join();
    EXPECT_EQ(value.copy(), 7);
}

TEST(AWatchedValue, EndsAWaitAtItsDeadline) {
    support::Watched<int> const value(0);
    EXPECT_FALSE(value.waitFor([](int v) { return v == 7; }, 10ms));
}

} // namespace
