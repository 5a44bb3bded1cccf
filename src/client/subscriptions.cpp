#include "client/subscriptions.hpp"

#include "client/arguments.hpp"
#include "common/log.hpp"

namespace mqtt {

using Error = MqttClient::Error;

Error Subscriptions::add(Topic const& topic, Subscriber* subscriber, int tag) {
    auto const refused = checkSubscription(topic);
    if (refused != Error::SUCCESS) {
        return refused;
    }
    auto const held = lock();
    // First, as it may run out of memory: the broker must not know of what is not registered.
    registrations_.add(topic, subscriber, tag);
    auto const result = subscribe(topic);
    // Without a connection the completion of the next one subscribes.
    if (result == Error::SUCCESS || result == Error::NO_CONN || result == Error::CONN_LOST) {
        return Error::SUCCESS;
    }
    registrations_.takeBack(topic, subscriber);
    return result;
}

Error Subscriptions::remove(Topic const& topic, Subscriber const* subscriber, int* mid) {
    auto const held = lock();
    if (!registrations_.remove(topic, subscriber)) {
        return Error::NOT_FOUND;
    }
    return unsubscribe(mid, topic);
}

Error Subscriptions::subscribe(Topic const& topic) {
    int mid = 0;
    auto const result = gate_.subscribe(mid, topic);
    if (result == Error::SUCCESS) {
        order_.subscribed(topic, mid);
    }
    return result;
}

/// Whoever wants the message id waits for the acknowledgement: nothing is held back then.
Error Subscriptions::unsubscribe(int* mid, Topic const& topic) noexcept {
    if (mid == nullptr && order_.holdsBack() && gate_.isOnline()
        && order_.holdBack(topic, SubscriptionOrder::Clock::now())) {
        return Error::SUCCESS;
    }
    return sendUnsubscription(mid, topic);
}

Error Subscriptions::sendUnsubscription(int* mid, Topic const& topic) noexcept {
    int ownMid = 0;
    mid = mid == nullptr ? &ownMid : mid;
    auto const result = gate_.unsubscribe(mid, topic);
    if (result == Error::SUCCESS) {
        order_.unsubscribed(topic, *mid);
    }
    return result;
}

void Subscriptions::release(Subscriber const* subscriber, bool wait) noexcept {
    {
        auto const held = lock();
        registrations_.removeAll(subscriber,
                                 [this](Topic const& topic) { unsubscribe(nullptr, topic); });
    }
    dispatch_.retire(subscriber, wait);
}

void Subscriptions::removeAll() {
    auto const held = lock();
    for (auto const& entry : registry_) {
        gate_.unsubscribe(nullptr, entry.first);
    }
    registrations_.clear();
    sendHeldBack(SubscriptionOrder::Clock::time_point::max());
}

void Subscriptions::deliver(Topic const& topic, std::string_view payload,
                            std::string const& clientId) {
    {
        auto const held = lock();
        auto const* const subscription = registrations_.find(topic);
        if (subscription == nullptr) {
            log(LogLevel::DETAIL, clientId, ": message without a subscriber: ", topic.text());
            return;
        }
        dispatch_.prepare(subscription->subscribers);
    }
    // The only copy, and only if somebody gets it.
    dispatch_.deliver(topic, std::string(payload), clientId);
}

void Subscriptions::subscriptionAcknowledged(int mid) {
    auto const held = lock();
    order_.subscriptionAcknowledged(mid);
}

void Subscriptions::unsubscriptionAcknowledged(int mid) {
    auto const held = lock();
    auto const* const topic = order_.unsubscriptionAcknowledged(mid);
    if (topic != nullptr && registry_.count(*topic) != 0) {
        subscribe(*topic);
    }
}

void Subscriptions::sendHeldBack(SubscriptionOrder::Clock::time_point now) {
    auto const held = lock();
    for (auto const* topic = order_.due(now); topic != nullptr; topic = order_.due(now)) {
        // A topic that was subscribed without a connection is wanted again.
        if (registry_.count(*topic) == 0 && sendUnsubscription(nullptr, *topic) != Error::SUCCESS) {
            return; // the next connection sends it
        }
        order_.forgetDue();
    }
}

bool Subscriptions::subscribeAgain() {
    order_.connectionAccepted();
    for (auto const& entry : registry_) {
        if (gate_.subscribeAgain(entry.first) == Error::CONN_LOST) {
            return false;
        }
    }
    return true;
}

} // namespace mqtt
