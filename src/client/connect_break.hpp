#pragma once

#include <sys/types.h>

namespace mqtt {

/// Ends a connect() that a thread of this process is blocked in. No other descriptor is touched:
/// the kernel says which one the thread is at, and it is the same file before and after.
///
/// Without effect where /proc is not mounted.
void breakConnect(pid_t thread);

} // namespace mqtt
