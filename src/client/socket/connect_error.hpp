#pragma once

#include <chrono>

namespace mqtt {

/// Why connecting to a host has just failed, for a broker library that hides it: tries again.
/// @param port 0 for the path of a unix socket
/// @return an `errno`; ETIMEDOUT without an answer within the timeout; ECONNREFUSED when connecting
///         succeeds now: most likely the server was just starting
int connectError(char const* host, int port, std::chrono::milliseconds timeout);

} // namespace mqtt
