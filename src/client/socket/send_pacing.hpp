#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace mqtt {

/// Decides when the packets that we send leave: each at once, or several in one segment.
///
/// In an exchange the next packet waits for the answer to the last one, so each has to leave at
/// once: the kernel's rule that holds small segments back (Nagle) is off. In a stream that would
/// put each packet into a segment of its own, which costs a publisher a third more processor time
/// and the throughput: the rule is on, and when the stream pauses its last packets are released.
class SendPacing {
public:
    /// After so much time without a new packet of ours a stream pauses. Longer than the gaps inside
    /// a stream, and short enough for the last packets of it to wait for.
    static constexpr std::chrono::milliseconds PAUSE{2};

    /// For a socket that has just been connected: begins with `EXCHANGE`.
    void begin(int fd);

    /// A packet has been handed to the broker library. In any thread.
    /// @param answered whether the broker answers it
    void packetIssued(bool answered) {
        lastIsAnswered_.store(answered, std::memory_order_relaxed);
        unanswered_.fetch_add(1, std::memory_order_relaxed);
    }

    /// Somebody who waited for the broker has got a message or an acknowledgement. In any thread.
    /// @return whether a packet was issued since the last time
    bool answerArrived() { return unanswered_.exchange(0, std::memory_order_relaxed) != 0; }

    /// After each network step.
    void stepped(int fd);

    /// Whether packets may be waiting in the kernel.
    bool holdsBack() const { return mode_ == Mode::STREAM; }

    /// The longest that the next network step may wait while packets are held back. The broker's
    /// answers release them too, and a shorter time costs a publisher a tenth of its processor
    /// time: a timer that is due before the kernel's next tick is programmed at every step.
    std::chrono::milliseconds longestWait() const {
        constexpr std::chrono::milliseconds ifAnswered{10};
        return lastIsAnswered_.load(std::memory_order_relaxed) ? ifAnswered : PAUSE;
    }

private:
    using Clock = std::chrono::steady_clock;

    /// EXCHANGE -> STREAM: more than `STREAM_PACKETS` are unanswered.
    /// STREAM -> PAUSED: nothing was issued for `PAUSE`; what was held back is released.
    /// PAUSED -> STREAM: a packet was issued. It may be the first of many, and is held back.
    /// STREAM or PAUSED -> EXCHANGE: `CALM_STEPS` network steps in a row did not see a stream.
    enum class Mode : std::uint8_t { EXCHANGE, STREAM, PAUSED };

    void startStream(int fd);
    void startExchange(int fd);

    std::atomic<unsigned> unanswered_{0}; ///< packets issued since the last answer arrived
    std::atomic<bool> lastIsAnswered_{true};
    Mode mode_ = Mode::EXCHANGE;
    int calmSteps_ = 0;            ///< in a row, since the stream began
    unsigned lastUnanswered_ = 0;  ///< at the last step of a stream
    Clock::time_point lastStep_{}; ///< of a stream
};

} // namespace mqtt
