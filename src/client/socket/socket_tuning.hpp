#pragma once

#include "client/socket/send_pacing.hpp"

#include <chrono>
#include <cstdint>

namespace mqtt {

/// Sets the options of the socket that the broker library has opened.
///
/// With the kernel's defaults an exchange of two messages takes 44 ms: a broker as shipped holds
/// its next small segment back until we acknowledge the last one, and our kernel delays that by 40
/// ms. So what was read is acknowledged at once, after a step that leaves nothing to read or to
/// write. In a stream an acknowledgement for each message would make the broker send each in a
/// segment of its own: there one is sent when the stream pauses.
class SocketTuning {
public:
    /// For a socket that has just been connected; a negative descriptor is ignored.
    void connected(int fd);

    /// A packet has been handed to the broker library. In any thread.
    /// @param answered whether the broker answers it
    void packetIssued(bool answered = true) { sending_.packetIssued(answered); }

    /// Somebody who waited for the broker has got an acknowledgement. In any thread.
    void answerArrived() { sending_.answerArrived(); }

    /// A message has been read.
    void messageReceived();

    /// After a network step. A step that leaves something to write does not acknowledge: the packet
    /// that leaves next carries the acknowledgement along.
    void stepped(int fd, bool moreToWrite);

    /// The longest that the next network step may wait.
    std::chrono::milliseconds longestWait() const;

private:
    using Clock = std::chrono::steady_clock;

    /// EXCHANGE -> STREAM: `STREAM_MESSAGES` within `SendPacing::PAUSE`.
    /// STREAM -> PAUSED: no message for `PAUSE`; what was read is acknowledged.
    /// PAUSED -> STREAM: a message. It may be the first of many.
    /// STREAM -> EXCHANGE: a pause after fewer than `STREAM_MESSAGES`.
    /// STREAM or PAUSED -> EXCHANGE: a message after a packet of ours.
    enum class Receiving : std::uint8_t { EXCHANGE, STREAM, PAUSED };

    void acknowledge(int fd);
    void delayAcknowledgements(int fd);
    bool isInStream();

    bool isTcp_ = false;              ///< a unix socket has none of these options and needs none
    bool acknowledgesAtOnce_ = false; ///< TCP_QUICKACK is set
    SendPacing sending_;
    Receiving receiving_ = Receiving::EXCHANGE;
    unsigned received_ = 0;            ///< messages since the last pause, or since our last packet
    Clock::time_point lastReceived_{}; ///< or of the 16th, 32nd, ... in an exchange
};

} // namespace mqtt
