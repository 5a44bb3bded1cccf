#pragma once

#include "mqtt/client.hpp"
#include "mqtt/connection_options.hpp"

#include <cstddef>
#include <deque>
#include <unordered_map>

namespace mqtt {

/// Keeps what waits for the broker within limits: the client's queue, and what the broker library
/// has been given and has not sent (QoS 0) or had acknowledged (QoS 1 and 2).
///
/// What the library has cannot be dropped any more. So while the broker does not read, the library
/// gets no more than a window, and the rest is queued.
///
/// For the thread that has the lock of the gate.
class QueueLimiter {
public:
    using Queue = std::deque<MqttClient::Publish>;

    /// @param queue changed by its owner, who tells of each change
    QueueLimiter(QueueLimits const& limits, Queue& queue);

    /// Counts what is queued already.
    void countQueue();
    /// Counts what the library has according to another limiter, which forgets it.
    void takeHeld(QueueLimiter& other) noexcept;

    /// Whether a publication is accepted. Nothing is dropped for it yet.
    bool accepts(Topic const& topic, std::size_t payloadSize) const;
    /// Whether the first of the queue has to be dropped to make room for what has been accepted.
    bool mustDropOldest(Topic const& topic, std::size_t payloadSize) const;
    /// The last of the queue has been appended.
    /// @return whether an older one of its topic was dropped
    bool appended();
    /// The first is about to be taken out of the queue.
    void beforePopFront();

    /// Whether the library can be given more now.
    bool libraryHasRoom() const;
    /// Without memory it is not counted.
    void handedOver(int messageId, Topic const& topic, std::size_t payloadSize, int qos) noexcept;
    /// The library has sent (QoS 0) or got the acknowledgement.
    void done(int messageId);
    /// The library forgets what it has not sent of QoS 0.
    void connectionEnded();

private:
    struct Held {
        std::size_t bytes;
        bool isForgotten; ///< when the connection ends
    };

    bool fits(std::size_t bytes) const;
    Queue::const_iterator find(Topic const& topic) const;

    QueueLimits const limits_;
    std::size_t const windowBytes_;
    std::size_t const windowMessages_;
    Queue& queue_;
    std::size_t queuedBytes_ = 0;
    std::unordered_multimap<int, Held> held_; ///< by the library, with message id
    std::size_t heldBytes_ = 0;
};

} // namespace mqtt
