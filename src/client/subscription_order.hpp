#pragma once

#include "mqtt/topic.hpp"

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace mqtt {

/// Notices a broker that acknowledges a SUBSCRIBE before an earlier UNSUBSCRIBE of the same topic.
/// Such a broker then ends the subscription that it has acknowledged, so it must be sent again.
///
/// An acknowledged SUBSCRIBE is known from the broker library's log, which does not say which one
/// it is; the callback `on_subscribe` would, but an override would change the class's virtual
/// table. So they are counted, which is right for a broker that keeps the order among them.
///
/// Nothing here needs memory, because unsubscribing needs none: so topics are known by their hash.
///
/// The client's main lock guards all of it, except for `subscriptionAcknowledged`.
class SubscriptionOrder {
public:
    using Hash = std::size_t;
    static Hash hashOf(Topic const& topic) noexcept {
        return std::hash<std::string>()(topic.text());
    }

    /// Worker: what was sent over an earlier connection is not acknowledged any more.
    void connectionAccepted() noexcept;
    void subscribed(Topic const& topic) noexcept;
    void unsubscribed(Topic const& topic, int mid) noexcept;
    /// Worker. Takes no lock: the broker library holds one that it takes in every operation.
    void subscriptionAcknowledged() noexcept { ++acknowledged_; }
    /// @return the hash of the topic whose subscription has been acknowledged too early
    std::optional<Hash> unsubscriptionAcknowledged(int mid) noexcept;

private:
    struct Unsubscription {
        int mid = 0;                  ///< 0: acknowledged
        std::size_t subscription = 0; ///< the number of the later SUBSCRIBE; 0: there is none
        Hash topic = 0;
    };

    /// Those sent last. An older one without acknowledgement is not examined.
    std::array<Unsubscription, 8> unsubscriptions_;
    std::size_t next_ = 0; ///< the place of the next one
    std::size_t sent_ = 0; ///< SUBSCRIBE packets over this connection
    std::atomic<std::size_t> acknowledged_{0};
};

} // namespace mqtt
