#include "client/registry/subscription_index.hpp"

#include <functional>
#include <string>

namespace mqtt {

namespace {

std::size_t hashOf(Topic const& topic) {
    return std::hash<std::string>()(topic.text());
}

// Without a wildcard a pattern matches its own text only.
bool hasWildcard(Topic const& pattern) {
    return pattern.text().find_first_of("+#") != std::string::npos;
}

} // namespace

void SubscriptionIndex::add(Subscription& subscription) {
    bool const isPattern = hasWildcard(subscription.topic);
    if (isPattern) {
        patterns_.add(subscription);
    }
    try {
        texts_.insert(hashOf(subscription.topic), &subscription);
    } catch (...) {
        if (isPattern) {
            patterns_.remove(subscription);
        }
        throw;
    }
}

void SubscriptionIndex::remove(Subscription const& subscription) noexcept {
    auto const& topic = subscription.topic;
    texts_.erase(hashOf(topic), [&](Subscription const& other) { return &other == &subscription; });
    if (hasWildcard(topic)) {
        patterns_.remove(subscription);
    }
}

void SubscriptionIndex::clear() noexcept {
    texts_.clear();
    patterns_.clear();
}

MqttClient::Subscription* SubscriptionIndex::find(Topic const& topic) const {
    auto const* const exact =
        texts_.find(hashOf(topic), [&](Subscription const& other) { return other.topic == topic; });
    return exact != nullptr ? *exact : patterns_.find(topic);
}

} // namespace mqtt
