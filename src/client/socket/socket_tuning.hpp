#pragma once

#include "client/socket/peer_watch.hpp"
#include "client/socket/send_pacing.hpp"

#include <chrono>
#include <cstddef>

namespace mqtt {

/// What the kernel is told about the broker connection, all of it on the socket that the broker
/// library has opened.
///
/// Left alone, a small packet waits up to 40 ms for an acknowledgement: at the broker, because
/// our kernel takes its time to acknowledge the last one (which makes every exchange of two
/// messages on a broker as shipped take 44 ms), and here, when several small ones follow each
/// other.
class SocketTuning {
public:
    /// For a socket just connected; a negative descriptor is ignored.
    void connected(int fd);

    /// A packet of ours has been handed to the broker library. In any thread.
    /// @param answered the broker will answer it
    void issued(bool answered = true) { pacing_.issued(answered); }

    /// Somebody who waited for the broker has heard of it. In any thread.
    void answered() { pacing_.answered(); }

    /// A message of so many bytes has been read.
    void received(std::size_t bytes);

    /// After a network step. Nothing is acknowledged while the next step is due anyway: a packet
    /// that is about to leave carries the acknowledgement along.
    void stepped(int fd, bool moreToWrite);

    /// How long the next step may wait.
    std::chrono::milliseconds patience() const;

private:
    using Clock = std::chrono::steady_clock;

    void acknowledge(int fd);
    bool floodHasPaused();

    bool tcp_ = false; ///< and not a unix socket, which delays nothing
    SendPacing pacing_;
    PeerWatch peer_;
    bool flooded_ = false;             ///< by messages in a stream
    unsigned messages_ = 0;            ///< read since the last pause
    Clock::time_point lastMessages_{}; ///< when some were read, or a flood paused
};

/// Waits until the socket takes more output, at most 100 ms.
void waitForOutput(int fd);

} // namespace mqtt
