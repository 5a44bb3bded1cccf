#pragma once

namespace mqtt::test {

/// A free port of the loopback address that no other test, in whatever process, gets while the
/// lease lives. So a broker that is killed finds its port free when it is started again, and a
/// port on which nothing listens stays so.
class PortLease {
public:
    /// @throws std::runtime_error when no port is free
    PortLease();
    ~PortLease();
    PortLease(PortLease const&) = delete;
    PortLease& operator=(PortLease const&) = delete;

    int port() const noexcept { return port_; }

private:
    bool take(int port);

    int port_ = 0;
    int lockedFile_ = -1; ///< the kernel releases the lock with the process, however it ends
};

} // namespace mqtt::test
