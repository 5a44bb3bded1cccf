#pragma once

#include <chrono>

namespace mqtt {

/// How long to wait before the n-th attempt to reconnect: n * n * 500 ms, at most 15 s.
std::chrono::milliseconds reconnectDelay(int attempt);

/// The number of the next attempt, from 1. One count for the whole process: a success of any
/// client starts it anew for all of them. Stops growing long after the delay has.
int nextReconnectAttempt();
void resetReconnectAttempts();

} // namespace mqtt
