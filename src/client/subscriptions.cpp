#include "client/arguments.hpp"
#include "client/engine.hpp"
#include "common/wait.hpp"
#include "mqtt/client.hpp"

#include <algorithm>

namespace mqtt {

using Error = MqttClient::Error;

Error MqttClient::subscribe(Topic const& topic, Subscriber* subscriber, int tag) {
    auto const refused = checkSubscription(topic);
    if (refused != Error::SUCCESS)
        return refused;
    std::lock_guard const lock(mainMutex_);
    auto result = Error::NO_CONN;
    {
        std::lock_guard const gateLock(engine_->gate.mutex);
        if (engine_->gate.online) {
            engine_->tuning.issued();
            result = static_cast<Error>(
                mosqpp::mosquittopp::subscribe(nullptr, topic.text().c_str(), 0));
        }
    }
    // Without a connection the completion of the next one subscribes.
    if (result != Error::SUCCESS && result != Error::NO_CONN && result != Error::CONN_LOST)
        return result;
    auto const known = subscriptions_.find(topic);
    if (known != subscriptions_.end())
        known->second.subscribers.emplace_back(subscriber, tag);
    else
        addSubscription({topic, {{subscriber, tag}}});
    return Error::SUCCESS;
}

/// Adds an entry to the registry and to its index, or to neither.
void MqttClient::addSubscription(Subscription subscription) {
    // Whatever needs memory comes before the one step that changes the registry and needs none.
    Registry entry;
    auto const topic = subscription.topic;
    auto& placed = entry.emplace(topic, std::move(subscription)).first->second;
    engine_->index.add(placed);
    subscriptions_.merge(entry);
}

/// @return the entry behind it
MqttClient::Registry::iterator MqttClient::eraseSubscription(Registry::iterator entry) noexcept {
    engine_->index.remove(entry->second);
    return subscriptions_.erase(entry);
}

Error MqttClient::unsubscribe(Topic const& topic, Subscriber* subscriber, int* mid) {
    std::lock_guard const lock(mainMutex_);
    auto const entry = subscriptions_.find(topic);
    if (entry == subscriptions_.end())
        return Error::NOT_FOUND;
    auto& subscribers = entry->second.subscribers;
    auto const found = std::find_if(subscribers.begin(), subscribers.end(),
                                    [&](auto const& pair) { return pair.first == subscriber; });
    if (found == subscribers.end())
        return Error::NOT_FOUND;
    subscribers.erase(found);
    if (!subscribers.empty())
        return Error::NOT_FOUND;
    int const result = unsubscribeAtBroker(mid, topic);
    eraseSubscription(entry);
    return static_cast<Error>(result);
}

Error MqttClient::unsubscribe(Topic const& topic, Subscriber* subscriber) {
    return unsubscribe(topic, subscriber, nullptr);
}

Error MqttClient::unsubscribeWait(Topic const& topic, Subscriber* subscriber,
                                  conv::SecondsDuration timeout) {
    // Held from before the request: its acknowledgement cannot come too early to be seen.
    std::unique_lock lock(unsubscriptionMutex_);
    lastUnsubscribed_ = -1;
    int mid = 0;
    auto const result = unsubscribe(topic, subscriber, &mid);
    if (result != Error::SUCCESS)
        return result;
    // The acknowledgement would have to be read by the very thread that waits for it.
    if (onWorkerThread())
        return Error::TIMEOUT;
    auto const deadline = timeout.toTimepoint(std::chrono::steady_clock::now());
    bool const done =
        waitUntil(unsubscribed_, lock, deadline, [&] { return lastUnsubscribed_ == mid; });
    return done ? Error::SUCCESS : Error::TIMEOUT;
}

void MqttClient::on_unsubscribe(int mid) {
    std::lock_guard const lock(unsubscriptionMutex_);
    if (mid == engine_->wakeMid)
        return;
    lastUnsubscribed_ = mid;
    unsubscribed_.notify_all();
}

void MqttClient::release(Subscriber* subscriber) noexcept {
    if (subscriber == nullptr)
        return;
    {
        std::lock_guard const lock(mainMutex_);
        for (auto entry = subscriptions_.begin(); entry != subscriptions_.end();) {
            auto& subscribers = entry->second.subscribers;
            subscribers.erase(
                std::remove_if(subscribers.begin(), subscribers.end(),
                               [&](auto const& pair) { return pair.first == subscriber; }),
                subscribers.end());
            if (!subscribers.empty()) {
                ++entry;
                continue;
            }
            unsubscribeAtBroker(nullptr, entry->first);
            entry = eraseSubscription(entry);
        }
    }
    engine_->dispatch.retire(subscriber, !onWorkerThread());
}

int MqttClient::unsubscribeAtBroker(int* mid, Topic const& topic) {
    std::lock_guard const lock(engine_->gate.mutex);
    if (!engine_->gate.online)
        return static_cast<int>(Error::NO_CONN);
    engine_->tuning.issued();
    return mosqpp::mosquittopp::unsubscribe(mid, topic.text().c_str());
}

} // namespace mqtt
