#pragma once

#include <chrono>
#include <functional>

namespace support {

/// How long a test waits for something that must happen. Far beyond what a busy machine needs:
/// it only ends the wait of a test that fails anyway.
inline constexpr std::chrono::milliseconds DEADLINE{30000};

/// Waits until `condition` holds, for what nobody announces (a process, a foreign library's
/// state). This is the one place that polls; where there is something to be woken by, use
/// `Watched`.
/// @return whether it came to hold
bool eventually(std::function<bool()> const& condition,
                std::chrono::milliseconds deadline = DEADLINE);

} // namespace support
