#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <optional>

namespace mqtt {

/// Connections that were lost one after the other, each shortly after the library had sent its
/// unacknowledged publications. A publication that the broker does not take looks like that: the
/// broker closes the connection, and the library sends the publication again with the next one.
///
/// Keeps no record of the publications: the library's message ids count up, so two of them tell
/// which publications the library had at a loss.
class ConnectionLosses {
public:
    using Clock = std::chrono::steady_clock;

    /// A connection that lives longer was not closed because of what was sent at its beginning.
    static constexpr std::chrono::seconds EARLY{10};

    /// The library has taken a publication above QoS 0. In any thread, one at a time.
    void handedOver(int messageId) {
        lastMessageId_.store(messageId, std::memory_order_relaxed);
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
    void connectionEnded(Clock::time_point now, bool isIntended);

    /// Whether a publication may be the cause: two connections were lost so far.
    bool isPublicationSuspected() const { return count_ >= 2; }
    /// Whether the publication that was sent when the connection ended was lost with the two
    /// connections before it, too. Before `connectionEnded`.
    bool isThirdLossOf(int messageId) const;

private:
    std::atomic<int> lastMessageId_{0};
    std::atomic<int> lastUnacknowledged_{0};    ///< 0: every publication is acknowledged
    std::optional<Clock::time_point> accepted_; ///< unless there is no connection
    int count_ = 0;                             ///< in a row
    std::array<int, 2> lastAtTheLosses_{};      ///< `lastMessageId_`, at the last loss first
};

} // namespace mqtt
