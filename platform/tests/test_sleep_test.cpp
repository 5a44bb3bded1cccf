#include <zym/common/test.hpp>

#include <gtest/gtest.h>

#include <chrono>

namespace {

// The pause itself is under test: there is no condition to wait for. A busy machine only makes it
// longer.
TEST(TheTestSleep, LastsAtLeastSoManyMilliseconds) {
    auto const begin = std::chrono::steady_clock::now();
    zym::common::test::sleep(20);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
}

} // namespace
