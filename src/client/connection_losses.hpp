#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <optional>

namespace mqtt {

/// Decides which publication is the cause when one connection after the other is lost. The broker
/// closes the connection when it gets a publication that it does not take, and the library sends
/// the publication again with the next connection.
///
/// Keeps no record of the publications: the library's message ids count up, so the last one at each
/// loss tells which publications the library had then.
class ConnectionLosses {
public:
    using Clock = std::chrono::steady_clock;

    /// A connection that lives longer was not closed because of what was sent at its beginning.
    static constexpr std::chrono::seconds EARLY{10};

    /// The library has taken a publication above QoS 0. In any thread, one at a time.
    void handedOver(int messageId) {
        bool const isOnlyOne = lastUnacknowledged_.load(std::memory_order_relaxed) == 0;
        isOnlyOne_.store(isOnlyOne, std::memory_order_relaxed);
        last_.store(messageId, std::memory_order_relaxed);
        lastUnacknowledged_.store(messageId, std::memory_order_relaxed);
    }

    // The rest is for the worker.

    /// An acknowledgement; those of QoS 0 may come here too.
    void acknowledged(int messageId) {
        if (lastUnacknowledged_.load(std::memory_order_relaxed) == messageId) {
            lastUnacknowledged_.compare_exchange_strong(messageId, 0);
        }
    }
    void connectionAccepted(Clock::time_point now) { accepted_ = now; }
    /// The broker has closed the connection when only this publication was on its way.
    /// `connectionEnded` follows.
    void lostAlone(int messageId) { alone_ = messageId; }
    void connectionEnded(Clock::time_point now, bool isIntended);

    /// Whether a publication may be the cause: two connections in a row were lost.
    bool isPublicationSuspected() const { return count_ >= 2; }
    /// Whether a publication that is lost alone now is the cause: the library had it at the two
    /// losses before, and at the last one it was alone, too. A broker with another reason to close
    /// connections would have to do so twice between this publication and its answer.
    bool isCause(int messageId) const;

private:
    std::atomic<int> last_{0};
    std::atomic<int> lastUnacknowledged_{0}; ///< 0: every publication is acknowledged
    std::atomic<bool> isOnlyOne_{false};     ///< that is not acknowledged
    std::optional<Clock::time_point> accepted_;
    int alone_ = 0;               ///< at the loss to come
    int count_ = 0;               ///< of losses in a row
    std::array<int, 2> lastAt_{}; ///< `last_` at the last loss, and at the one before
    int aloneAtTheLast_ = 0;
};

} // namespace mqtt
