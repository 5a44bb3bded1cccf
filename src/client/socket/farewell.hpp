#pragma once

#include <chrono>

namespace mqtt {

/// Keeps a connection alive past its closing by the broker library, until the broker has read
/// the last packet.
///
/// The library closes its socket as soon as DISCONNECT is written. With input unread the kernel
/// then resets the connection, the broker's next write fails, and it publishes the will without
/// ever reading DISCONNECT. So a second descriptor stays open and swallows the input until the
/// broker closes its side.
class Farewell {
public:
    explicit Farewell(int fd);
    ~Farewell();
    Farewell(Farewell const&) = delete;
    Farewell& operator=(Farewell const&) = delete;

    /// Reads to the end of the connection, or until the deadline: a broker that fell silent
    /// closes nothing.
    void waitForPeer(std::chrono::steady_clock::time_point deadline) const;

private:
    int fd_;
};

} // namespace mqtt
