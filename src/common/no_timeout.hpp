#pragma once

#include <conv/seconds_duration.hpp>

#include <cstdint>

namespace mqtt {

/// All ones: no limit.
inline conv::SecondsDuration const NO_TIMEOUT{UINT32_MAX};

} // namespace mqtt
