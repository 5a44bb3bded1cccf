#include "client/subscription_order.hpp"

#include "common/user_call.hpp"

#include <algorithm>

namespace mqtt {

void SubscriptionOrder::subscribed(Topic const& topic, int mid) noexcept {
    if (!sent_) {
        return;
    }
    for (auto& unsubscription : sent_->unsubscriptions) {
        if (unsubscription.mid != 0 && unsubscription.topic == topic) {
            unsubscription.subscription = mid;
            unsubscription.isSubscribed = false;
        }
    }
}

void SubscriptionOrder::unsubscribed(Topic const& topic, int mid) noexcept {
    // Without memory the order is not examined this time.
    callUser([&] {
        if (!sent_) {
            sent_ = std::make_unique<Sent>();
        }
        auto& unsubscription = sent_->unsubscriptions[sent_->next];
        sent_->next = (sent_->next + 1) % sent_->unsubscriptions.size();
        unsubscription.mid = 0;
        unsubscription.topic = topic;
        unsubscription.subscription = 0;
        unsubscription.mid = mid;
    });
}

void SubscriptionOrder::subscriptionAcknowledged(int mid) noexcept {
    if (!sent_) {
        return;
    }
    for (auto& unsubscription : sent_->unsubscriptions) {
        unsubscription.isSubscribed |= unsubscription.subscription == mid;
    }
}

Topic const* SubscriptionOrder::unsubscriptionAcknowledged(int mid) noexcept {
    if (!sent_) {
        return nullptr;
    }
    auto& all = sent_->unsubscriptions;
    auto const found = std::find_if(all.begin(), all.end(), [mid](auto const& unsubscription) {
        return unsubscription.mid == mid;
    });
    if (found == all.end()) {
        return nullptr;
    }
    found->mid = 0;
    return found->subscription != 0 && found->isSubscribed ? &found->topic : nullptr;
}

} // namespace mqtt
