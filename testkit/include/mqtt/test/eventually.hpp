#pragma once

#include <chrono>
#include <thread>

namespace mqtt::test {

/// How long a test waits for something that must happen. Far beyond what a busy machine needs:
/// it only ends the wait of a test that fails anyway.
inline constexpr std::chrono::milliseconds DEADLINE{30000};

/// Polls until `condition()` holds, for events that nothing announces (a process, a foreign
/// library's state). Where there is something to be woken by, use `Watched`.
/// @return whether it holds
template <class Condition>
bool eventually(Condition const& condition, std::chrono::milliseconds deadline = DEADLINE) {
    auto const end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            // Once more: this thread may have been without a processor since the last look.
            return condition();
        }
        // Without a pause this loop would take the processor from what it waits for.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace mqtt::test
