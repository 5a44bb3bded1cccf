#pragma once

#include "mqtt/test/watched.hpp"

#include <gtest/gtest.h>

#include <chrono>

/// A call on one thread that an operation on another thread must wait for.
class AwaitedCall {
public:
    /// The body of the call. It lasts long enough to see whether the operation waits: if a machine
    /// is slow, a defect may pass unseen; a correct operation never fails.
    void run() {
        mqtt::test::set(hasBegun_);
        EXPECT_FALSE(hasReturned_.waitFor(mqtt::test::isSet, std::chrono::milliseconds(200)));
        mqtt::test::set(isOver_);
    }

    /// Begins the operation inside the call. It must return when the call is over.
    template <class Operation>
    void expectToBeAwaitedBy(Operation const& operation) {
        ASSERT_TRUE(hasBegun_.waitFor(mqtt::test::isSet));
        operation();
        EXPECT_TRUE(isOver_.copy());
        mqtt::test::set(hasReturned_);
    }

private:
    mqtt::test::Watched<bool> hasBegun_, hasReturned_, isOver_;
};
