#pragma once

#include "interleavings/scenario.hpp"
#include "interleavings/scheduler.hpp"

#include <string>

namespace interleavings {

/// Runs a scenario once, in a process of its own. @return what failed; empty: nothing
std::string run(Scenario const& scenario, Plan plan);
RunRecord const& lastRun();
/// Prints each switch of the last run, if its plan was traced, and after a failure where each
/// thread stands.
void printTrace();

} // namespace interleavings
