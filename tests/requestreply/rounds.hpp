#pragma once

#include "support/timeout_factor.hpp"

#include <algorithm>
#include <cstdlib>

/// How often to repeat something that may fail by the order of threads only. The environment
/// variable ZYM_TEST_ROUNDS multiplies the number: the tests with the label `long` set it.
inline int rounds(int number) {
    char const* const factor = std::getenv("ZYM_TEST_ROUNDS");
    int const all = number * (factor == nullptr ? 1 : std::atoi(factor));
    return std::max(1, all / support::TIMEOUT_FACTOR);
}
