#pragma once

#include <zym/common/timer.hpp>

#include <chrono>
#include <mutex>

namespace mqtt {

/// Makes the timer expire after the period: once, or again and again.
/// @throws std::system_error no thread to be had; std::bad_alloc
inline void armTimer(zym::common::Timer& timer, std::chrono::milliseconds period, bool once) {
    std::unique_lock<std::mutex> lock(timer.mutex());
    timer.setPeriod(period, lock);
    timer.once = once;
    timer.restart(lock);
}

} // namespace mqtt
