#pragma once

#include <chrono>

/// A program that links `adjustable-clock` has a steady clock that the test can set forward: time
/// passes without waiting, however busy the machine is.
///
/// A thread that waits on a condition meanwhile notices when it is woken; waits that begin later
/// last as long as without this.
namespace adjustable_clock {

void advance(std::chrono::milliseconds by);

} // namespace adjustable_clock
