#pragma once

#include "support/file_descriptor.hpp"

namespace support {

/// A free port of the loopback address that no other test, in whatever process, gets while the
/// lease lives. So a broker that is killed finds its port free when it comes back, and a port
/// where nobody listens stays one.
///
/// Ports lie outside the range from which the kernel takes those of outgoing connections: in
/// there a client of another test could sit on the port in between.
class PortLease {
public:
    /// @throws std::runtime_error when no port is free
    PortLease();
    /// That very port. Waits for as long as another test has it.
    /// @throws std::runtime_error when a stranger has it
    explicit PortLease(int port);

    int port() const noexcept { return port_; }

private:
    bool take(int port, int how);

    int port_ = 0;
    FileDescriptor lock_; ///< the kernel ends the lock with the process, however it ends
};

} // namespace support
