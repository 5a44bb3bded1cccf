#pragma once

#include <chrono>

/// A program that links `leaping-clock` has a steady clock that the test can set forward, so that
/// time has passed without anybody having waited for it, and however busy the machine is.
///
/// Who waits on a condition meanwhile finds out when it is woken; what waits from then on waits as
/// long as it would have.
namespace leaping_clock {

void leap(std::chrono::milliseconds forward);

} // namespace leaping_clock
