#pragma once

#include "support/file_descriptor.hpp"

namespace support {

/// A free port of the loopback address that no other test, in whatever process, gets while the
/// lease lives. So a broker that is killed finds its port free when it is started again, and a
/// port on which nothing listens stays so.
///
/// Ports lie outside the range from which the kernel takes those of outgoing connections: a
/// connection of another test could take one of these in between.
class PortLease {
public:
    /// @throws std::runtime_error when no port is free
    PortLease();
    /// This port. Waits for as long as another test has it.
    /// @throws std::runtime_error when another program has it
    explicit PortLease(int port);

    int port() const noexcept { return port_; }

private:
    bool take(int port, int how);

    int port_ = 0;
    FileDescriptor lock_; ///< the kernel releases the lock with the process, however it ends
};

} // namespace support
