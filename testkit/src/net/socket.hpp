#pragma once

#include "net/file_descriptor.hpp"

#include <string>

namespace mqtt::test {

// TCP on the loopback address. Every socket is closed in child processes.

/// Whether this port is free.
bool canBind(int port);
/// @throws std::system_error
FileDescriptor listenOn(int port, int backlog);
/// Connects, blocking. @return an invalid descriptor when refused
FileDescriptor connectTo(int port);
/// Starts to connect; the socket does not block and sends at once (TCP_NODELAY).
/// @return an invalid descriptor when refused
FileDescriptor startConnecting(int port);
/// Accepts one connection, which does not block and sends at once. @return an invalid descriptor
/// when none waits
FileDescriptor acceptFrom(FileDescriptor const& listener);
/// Closes the connection with a reset: the peer sees "connection reset by peer".
void resetConnection(FileDescriptor& socket);
/// Bytes written that the kernel has not sent yet.
int unsentBytes(FileDescriptor const& socket);
/// Writes everything, waiting for room. @return false when the connection is lost
bool sendAll(FileDescriptor const& socket, std::string const& bytes);

/// Both ends of one TCP connection, which block.
/// @throws std::system_error
struct TcpPair {
    TcpPair();

    FileDescriptor near;
    FileDescriptor far;
};

} // namespace mqtt::test
