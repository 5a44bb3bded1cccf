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
    /// For a socket just connected.
    void begin(int fd);

    /// A packet of ours has been handed to the broker library. In any thread.
    /// @param answered the broker will answer it, which takes along what is held back behind it
    void issued(bool answered) {
        lastIsAnswered_.store(answered, std::memory_order_relaxed);
        unanswered_.fetch_add(1, std::memory_order_relaxed);
    }

    /// The broker has been heard of by somebody who waited for it. In any thread.
    /// @return whether we have issued anything since it was last
    bool answered() { return unanswered_.exchange(0, std::memory_order_relaxed) != 0; }

    /// After each network step.
    void stepped(int fd);

    /// Whether packets may be held back.
    bool holdsBack() const { return holdsBack_; }

    /// How long the next step may wait while they are.
    std::chrono::milliseconds patience() const {
        return lastIsAnswered_.load(std::memory_order_relaxed) ? LONG_PAUSE : PAUSE;
    }

    /// The end of a stream.
    static constexpr std::chrono::milliseconds PAUSE{2};

private:
    /// Steps that wait for no more than `PAUSE` cost a publisher a tenth of its processor time: a
    /// timer that is due before the kernel's next tick has to be programmed, with each step.
    static constexpr std::chrono::milliseconds LONG_PAUSE{10};

    using Clock = std::chrono::steady_clock;

    void gather(int fd, bool on);
    void releaseAfterPause(int fd, unsigned unanswered);

    std::atomic<unsigned> unanswered_{0}; ///< issued since the broker was heard of
    std::atomic<bool> lastIsAnswered_{true};
    bool gathers_ = false;
    bool holdsBack_ = false;
    int calmSteps_ = 0;            ///< while gathering
    unsigned lastUnanswered_ = 0;  ///< at the last step
    Clock::time_point lastStep_{}; ///< while gathering
};

} // namespace mqtt
