#pragma once

#include <sys/types.h>

namespace mqtt {

/// Ends a connect() that a thread of this process is blocked in. No other descriptor is touched:
/// the kernel says which one the thread is at, and it is the same file before and after.
///
/// Without effect where the kernel does not show in /proc which system call a thread is at.
void breakConnect(pid_t thread);

} // namespace mqtt
