#pragma once

#include "chaos/test_bed.hpp"

#include <chrono>

namespace chaos {

/// For this time, cuts and delays connections of the proxies at random, and suspends the broker for
/// moments. Direct connections to the broker stay.
void injectCuts(TestBed& testBed, Random& random, std::chrono::milliseconds duration);

/// The same, and kills and restarts the broker again and again.
void injectKills(TestBed& testBed, Random& random, std::chrono::milliseconds duration);

} // namespace chaos
