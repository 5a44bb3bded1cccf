#pragma once

#include <atomic>
#include <chrono>

namespace mqtt {

/// When our packets leave: at once in a conversation, several in one segment in a stream.
///
/// A conversation is what the broker has its say in: after a few packets of ours somebody hears
/// from it. At once is what a conversation needs, as each packet waits for the one before. In a
/// stream it would cost a publisher a third of its processor time, as no two packets would ever
/// share a segment; there Nagle gathers them, and a pause releases the last of them.
class SendPacing {
public:
    /// For a TCP socket just connected.
    void begin(int fd);

    /// A packet of ours has been handed to the broker library. In any thread.
    void issued() { unanswered_.fetch_add(1, std::memory_order_relaxed); }

    /// The broker has been heard of by somebody who waited for it. In any thread.
    void answered() { unanswered_.store(0, std::memory_order_relaxed); }

    /// After each network step.
    void stepped(int fd);

    /// Whether packets may be held back, until no more have been issued for `PAUSE`.
    bool holdsBack() const { return holdsBack_; }

    /// The end of a stream, and so the longest that its last packets are held back.
    static constexpr std::chrono::milliseconds PAUSE{2};

private:
    using Clock = std::chrono::steady_clock;

    void gather(int fd, bool on);
    void releaseAfterPause(int fd, unsigned unanswered);

    std::atomic<unsigned> unanswered_{0}; ///< issued since the broker was heard of
    bool gathers_ = false;
    bool holdsBack_ = false;
    int calmSteps_ = 0;            ///< while gathering
    unsigned lastUnanswered_ = 0;  ///< at the last step
    Clock::time_point lastStep_{}; ///< while gathering
};

} // namespace mqtt
