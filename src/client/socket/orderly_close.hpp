#pragma once

#include <chrono>

namespace mqtt {

/// Lets the broker read everything that was sent before the connection goes away.
///
/// The broker library's socket is closed as soon as the DISCONNECT packet is written. If there is
/// unread input then, the kernel resets the connection; the broker's next write fails, and it
/// publishes the will without having read the packet. An object of this class holds a second
/// descriptor of the same connection, on which the input is read and dropped until the broker
/// closes its side.
class OrderlyClose {
public:
    /// @param fd the socket; negative for none, and then nothing is done
    explicit OrderlyClose(int fd);
    ~OrderlyClose();
    OrderlyClose(OrderlyClose const&) = delete;
    OrderlyClose& operator=(OrderlyClose const&) = delete;

    /// Ends our side of the connection, and reads until the broker ends its own, or until the
    /// deadline: a broker that does not answer any more does not close the connection either.
    void waitForPeer(std::chrono::steady_clock::time_point deadline) const;

private:
    int fd_;
};

/// Waits until the socket accepts output, at most 100 ms.
void waitForOutput(int fd);

/// Whether our side of a connection has ended, by shutdown() or because the connection broke.
bool isShutDown(int fd);

/// Makes a descriptor mean the end of input in place of its connection, which is closed unless
/// there is another descriptor of it. Without effect if the process may not have another
/// descriptor.
void replaceByEndOfInput(int fd);

} // namespace mqtt
