#include "client/subscription_order.hpp"

#include "common/user_call.hpp"

#include <algorithm>

namespace mqtt {

namespace {

/// Longer than the pause between two requests in a row.
constexpr std::chrono::seconds HOLD_BACK_TIME{1};

} // namespace

void SubscriptionOrder::connectionAccepted() noexcept {
    if (!packets_) {
        return;
    }
    for (auto& unsubscription : packets_->unsubscriptions) {
        unsubscription.mid = 0;
    }
}

void SubscriptionOrder::subscribed(Topic const& topic, int mid) noexcept {
    if (!packets_) {
        return;
    }
    auto& heldBack = packets_->heldBack;
    heldBack.erase(std::remove_if(heldBack.begin(), heldBack.end(),
                                  [&](auto const& one) { return one.topic == topic; }),
                   heldBack.end());
    for (auto& unsubscription : packets_->unsubscriptions) {
        if (unsubscription.mid != 0 && unsubscription.topic == topic) {
            unsubscription.subscription = mid;
            unsubscription.isSubscribed = false;
        }
    }
}

void SubscriptionOrder::unsubscribed(Topic const& topic, int mid) noexcept {
    // Without memory the order is not examined this time.
    callUser([&] {
        if (!packets_) {
            packets_ = std::make_unique<Packets>();
        }
        auto& unsubscription = packets_->unsubscriptions[packets_->next];
        packets_->next = (packets_->next + 1) % packets_->unsubscriptions.size();
        unsubscription.mid = 0;
        unsubscription.topic = topic;
        unsubscription.subscription = 0;
        unsubscription.mid = mid;
    });
}

void SubscriptionOrder::subscriptionAcknowledged(int mid) noexcept {
    if (!packets_) {
        return;
    }
    for (auto& unsubscription : packets_->unsubscriptions) {
        unsubscription.isSubscribed |= unsubscription.subscription == mid;
    }
}

Topic const* SubscriptionOrder::unsubscriptionAcknowledged(int mid) noexcept {
    if (!packets_) {
        return nullptr;
    }
    auto& all = packets_->unsubscriptions;
    auto const found = std::find_if(all.begin(), all.end(), [mid](auto const& unsubscription) {
        return unsubscription.mid == mid;
    });
    if (found == all.end()) {
        return nullptr;
    }
    found->mid = 0;
    if (found->subscription == 0 || !found->isSubscribed) {
        return nullptr;
    }
    holdsBack_ = true;
    return &found->topic;
}

bool SubscriptionOrder::holdBack(Topic const& topic, Clock::time_point now) noexcept {
    bool isHeldBack = false;
    callUser([&] {
        packets_->heldBack.push_back({topic, now + HOLD_BACK_TIME});
        isHeldBack = true;
    });
    return isHeldBack;
}

Topic const* SubscriptionOrder::due(Clock::time_point now) const {
    bool const isDue =
        packets_ && !packets_->heldBack.empty() && packets_->heldBack.front().due <= now;
    return isDue ? &packets_->heldBack.front().topic : nullptr;
}

void SubscriptionOrder::forgetDue() {
    packets_->heldBack.erase(packets_->heldBack.begin());
}

} // namespace mqtt
