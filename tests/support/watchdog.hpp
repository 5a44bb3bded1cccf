#pragma once

#include <chrono>

namespace support {

/// In each test program one watchdog ends the process when a test case hangs, or the set-up or
/// tear-down of its suite. It prints its name, the stacks of all threads and the ends of the
/// brokers' logs.
struct Watchdog {
    /// Gives the running test case this long, times `TIMEOUT_FACTOR`, from now on. Each has 60 s,
    /// or the environment's ZYM_TEST_LIMIT in seconds (0: no limit, for a debugger), times that.
    static void limit(std::chrono::seconds limit);
};

} // namespace support
