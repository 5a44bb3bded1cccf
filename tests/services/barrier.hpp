#pragma once

#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <optional>

/// Holds those who come by until told otherwise.
class Barrier {
public:
    /// @return what lets a call of the broker library take its course
    std::optional<int> pass() {
        set(entered_);
        EXPECT_TRUE(open_.waitFor(support::isSet));
        return std::nullopt;
    }
    bool waitForVisitor() const { return entered_.waitFor(support::isSet); }
    void open() { set(open_); }

private:
    support::Watched<bool> entered_, open_;
};
