#include "client/subscription_order.hpp"

#include <algorithm>

namespace mqtt {

void SubscriptionOrder::connectionAccepted() noexcept {
    sent_ = 0;
    acknowledged_ = 0;
    for (auto& unsubscription : unsubscriptions_) {
        unsubscription.mid = 0;
    }
}

void SubscriptionOrder::subscribed(Topic const& topic) noexcept {
    ++sent_;
    auto const hash = hashOf(topic);
    for (auto& unsubscription : unsubscriptions_) {
        if (unsubscription.mid != 0 && unsubscription.topic == hash) {
            unsubscription.subscription = sent_;
        }
    }
}

void SubscriptionOrder::unsubscribed(Topic const& topic, int mid) noexcept {
    auto& unsubscription = unsubscriptions_[next_];
    next_ = (next_ + 1) % unsubscriptions_.size();
    unsubscription = {mid, 0, hashOf(topic)};
}

std::optional<SubscriptionOrder::Hash>
SubscriptionOrder::unsubscriptionAcknowledged(int mid) noexcept {
    auto const found =
        std::find_if(unsubscriptions_.begin(), unsubscriptions_.end(),
                     [mid](auto const& unsubscription) { return unsubscription.mid == mid; });
    if (found == unsubscriptions_.end()) {
        return std::nullopt;
    }
    found->mid = 0;
    bool const isTooEarly = found->subscription != 0 && found->subscription <= acknowledged_;
    return isTooEarly ? std::make_optional(found->topic) : std::nullopt;
}

} // namespace mqtt
