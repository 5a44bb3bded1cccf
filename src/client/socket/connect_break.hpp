#pragma once

#include <sys/types.h>

namespace mqtt {

/// Ends a connect() that blocks a thread of this process. No other socket is touched: /proc says
/// which descriptor the thread connects, and the descriptor means the same socket before and after.
///
/// Without effect where the kernel does not show in /proc which system call a thread is in.
void breakConnect(pid_t thread);

} // namespace mqtt
