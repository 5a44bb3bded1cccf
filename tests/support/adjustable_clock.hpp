#pragma once

#include <chrono>

/// A program that links `adjustable-clock` has a steady clock that the test can set forward, so
/// that time has passed without anybody having waited for it, and however busy the machine is.
///
/// Who waits on a condition meanwhile finds out when it is woken; what waits from then on waits as
/// long as it would have.
namespace adjustable_clock {

void advance(std::chrono::milliseconds forward);

} // namespace adjustable_clock
