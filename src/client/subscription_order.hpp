#pragma once

#include "mqtt/topic.hpp"

#include <array>
#include <cstddef>
#include <memory>

namespace mqtt {

/// Notices a broker that acknowledges a SUBSCRIBE before an earlier UNSUBSCRIBE of the same topic.
/// Such a broker then ends the subscription that it has acknowledged, so it must be sent again.
///
/// The client's main lock guards it.
class SubscriptionOrder {
public:
    /// What was sent over an earlier connection is not acknowledged any more.
    void connectionAccepted() noexcept { sent_.reset(); }
    void subscribed(Topic const& topic, int mid) noexcept;
    void unsubscribed(Topic const& topic, int mid) noexcept;
    void subscriptionAcknowledged(int mid) noexcept;
    /// @return the topic whose subscription was acknowledged too early; null if there is none
    Topic const* unsubscriptionAcknowledged(int mid) noexcept;

private:
    struct Unsubscription {
        int mid = 0;               ///< 0: acknowledged
        int subscription = 0;      ///< the id of a later SUBSCRIBE of the topic; 0: there is none
        bool isSubscribed = false; ///< whether that is acknowledged
        Topic topic;               ///< kept for its memory
    };
    /// Those sent last. An older one without acknowledgement is not examined.
    struct Sent {
        std::array<Unsubscription, 8> unsubscriptions;
        std::size_t next = 0; ///< the place of the next one
    };

    std::unique_ptr<Sent> sent_; ///< null without an unsubscription: most clients need none
};

} // namespace mqtt
