#pragma once

#include <chrono>

namespace mqtt {

/// How long to wait before the n-th attempt to reconnect: n * n * 500 ms, at most 15 s.
std::chrono::milliseconds reconnectDelay(int attempt);

/// The number of the next attempt, from 1. All clients of the process share one count, and the
/// success of any client resets it. The count has a limit, far above where the delay stops growing.
int nextReconnectAttempt();
void resetReconnectAttempts();

} // namespace mqtt
