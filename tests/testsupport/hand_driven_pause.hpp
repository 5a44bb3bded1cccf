#pragma once

#include <functional>
#include <vector>

/// The program that links this makes no pauses: where a check would, the test has its turn, on
/// the thread of the check.
namespace hand_driven_pause {

/// Called in the n-th pause, counted from 1.
using Hook = std::function<void(std::size_t)>;

/// Forgets the pauses so far.
void reset(Hook hook = {});
/// How long those would have been that were asked for, in milliseconds.
std::vector<unsigned> pauses();

} // namespace hand_driven_pause
