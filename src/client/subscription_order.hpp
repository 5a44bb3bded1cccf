#pragma once

#include "mqtt/topic.hpp"

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

namespace mqtt {

/// Notices a broker that acknowledges a SUBSCRIBE before an earlier UNSUBSCRIBE of the same topic.
///
/// Such a broker then ends the subscription that it has acknowledged, so it must be sent again, and
/// what comes meanwhile is lost. From then on each UNSUBSCRIBE is held back for a while: a topic
/// that is subscribed again by then, as that of replies, needs none.
///
/// The client's main lock guards it.
class SubscriptionOrder {
public:
    using Clock = std::chrono::steady_clock;

    /// What was sent over an earlier connection is not acknowledged any more.
    void connectionAccepted() noexcept;
    void subscribed(Topic const& topic, int mid) noexcept;
    void unsubscribed(Topic const& topic, int mid) noexcept;
    void subscriptionAcknowledged(int mid) noexcept;
    /// @return the topic whose subscription was acknowledged too early; null if there is none
    Topic const* unsubscriptionAcknowledged(int mid) noexcept;

    /// Whether an UNSUBSCRIBE is to be held back. The worker, which alone changes that, may look
    /// without the lock.
    bool holdsBack() const { return holdsBack_; }
    /// @return false if there is no memory for that
    bool holdBack(Topic const& topic, Clock::time_point now) noexcept;
    /// @return the topic of the UNSUBSCRIBE to be sent next; null if none is due
    Topic const* due(Clock::time_point now) const;
    void forgetDue();

private:
    struct Unsubscription {
        int mid = 0;               ///< 0: acknowledged
        int subscription = 0;      ///< the id of a later SUBSCRIBE of the topic; 0: there is none
        bool isSubscribed = false; ///< whether that is acknowledged
        Topic topic;               ///< kept for its memory
    };
    struct HeldBack {
        Topic topic;
        Clock::time_point due;
    };
    struct Packets {
        /// Those sent last. An older one without acknowledgement is not examined.
        std::array<Unsubscription, 8> unsubscriptions;
        std::size_t next = 0;           ///< the place of the next one
        std::vector<HeldBack> heldBack; ///< the next one first
    };

    std::unique_ptr<Packets> packets_; ///< null without an unsubscription: most clients need none
    bool holdsBack_ = false;
};

} // namespace mqtt
