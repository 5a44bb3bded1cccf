#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace mqtt {

/// Finds out whether the other end of a TCP connection holds small segments back until the last
/// one is acknowledged (Nagle), as a broker does unless it is told otherwise, and so whether our
/// acknowledgements are urgent.
///
/// As long as that is not known they are kept back for a moment. A peer that waits for them falls
/// silent, and speaks up as soon as it gets one; one that does not wait sends the next small
/// segment all the same. The latter is a proof when it is seen twice, the former three times, as
/// long as there is no proof of the contrary, and it is believed for a while only. With a peer that
/// shows neither, because every packet of its is answered by one of ours, nothing is urgent until
/// it falls silent.
class PeerWatch {
public:
    using Clock = std::chrono::steady_clock;

    /// The connection has just been made.
    void begin() { *this = PeerWatch(); }

    /// A message of so many bytes has been read.
    void received(std::size_t bytes) {
        ++messages_;
        messageBytes_ += bytes;
    }

    /// After each network step.
    /// @return whether to acknowledge, now, what has been read
    bool look(int fd);

    /// Whether the peer is known not to wait: there is nothing to look for any more.
    bool sendsOn() const { return verdict_ == Verdict::SENDS_ON; }

    /// The longest that the next network step may wait for the peer.
    std::chrono::milliseconds patience() const;

private:
    enum class Verdict : std::uint8_t { OPEN, QUIET, WAITS, SENDS_ON };
    /// Since the connection was made, modulo 2^32.
    struct Traffic {
        std::uint32_t segmentsReceived = 0; ///< with data
        std::uint32_t bytesReceived = 0;
        std::uint32_t segmentsSent = 0;
        std::uint32_t segmentsSentWithData = 0;
    };
    static bool read(int fd, Traffic& traffic);
    bool observe(int fd);
    bool awaitSilence(int fd);
    void judge(Traffic const& since, Clock::duration pause);
    bool isFewPackets(Traffic const& since) const;
    bool isTooMuch(Traffic const& since) const;

    Verdict verdict_ = Verdict::OPEN;
    bool keepsBack_ = false;    ///< since the last look
    bool owes_ = false;         ///< what was read before the last look is not acknowledged
    bool acknowledged_ = false; ///< at the last look, after a silence
    int looks_ = 0;             ///< while open or waiting; a busy connection has no end of them
    int silences_ = 0;
    int goingsOn_ = 0;
    Clock::time_point looked_; ///< when, last
    Traffic last_;
    std::uint32_t messages_ = 0; ///< since the last look
    std::size_t messageBytes_ = 0;
};

} // namespace mqtt
