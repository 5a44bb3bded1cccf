#include "client/arguments.hpp"
#include "client/engine.hpp"
#include "common/wait.hpp"
#include "mqtt/client.hpp"

#include <utility>

namespace mqtt {

using Error = MqttClient::Error;

Error MqttClient::subscribe(Topic const& topic, Subscriber* subscriber, int tag) {
    auto const refused = checkSubscription(topic);
    if (refused != Error::SUCCESS) {
        return refused;
    }
    std::lock_guard const lock(mainMutex_);
    // First, as it may run out of memory: the broker must not know of what is not registered.
    engine_->registrations.add(topic, subscriber, tag);
    auto const result = subscribeAtBroker(topic.text().c_str());
    // Without a connection the completion of the next one subscribes.
    if (result == Error::SUCCESS || result == Error::NO_CONN || result == Error::CONN_LOST) {
        return Error::SUCCESS;
    }
    engine_->registrations.takeBack(topic, subscriber);
    return result;
}

Error MqttClient::unsubscribe(Topic const& topic, Subscriber* subscriber, int* mid) {
    std::lock_guard const lock(mainMutex_);
    if (!engine_->registrations.remove(topic, subscriber)) {
        return Error::NOT_FOUND;
    }
    return unsubscribeAtBroker(mid, topic.text().c_str());
}

Error MqttClient::unsubscribe(Topic const& topic, Subscriber* subscriber) {
    return unsubscribe(topic, subscriber, nullptr);
}

Error MqttClient::unsubscribeWait(Topic const& topic, Subscriber* subscriber,
                                  conv::SecondsDuration timeout) {
    if (onWorkerThread()) {
        // The acknowledgement would have to be read by the very thread that waits for it. No lock
        // either: a state listener is called with the main lock held, which comes after it.
        auto const result = unsubscribe(topic, subscriber);
        return result == Error::SUCCESS ? Error::TIMEOUT : result;
    }
    // Held from before the request: its acknowledgement cannot come too early to be seen.
    std::unique_lock lock(unsubscriptionMutex_);
    lastUnsubscribed_ = -1;
    UnsubscriptionWait wait;
    auto const result = unsubscribe(topic, subscriber, &wait.mid);
    if (result != Error::SUCCESS) {
        return result;
    }
    wait.next = std::exchange(engine_->unsubscriptionWaits, &wait);
    auto const deadline = timeout.toTimepoint(std::chrono::steady_clock::now());
    bool const done = waitUntil(unsubscribed_, lock, deadline, [&] { return wait.acknowledged; });
    auto** link = &engine_->unsubscriptionWaits;
    while (*link != &wait) {
        link = &(*link)->next;
    }
    *link = wait.next;
    return done ? Error::SUCCESS : Error::TIMEOUT;
}

void MqttClient::on_unsubscribe(int mid) {
    std::lock_guard const lock(unsubscriptionMutex_);
    lastUnsubscribed_ = mid;
    for (auto* wait = engine_->unsubscriptionWaits; wait != nullptr; wait = wait->next) {
        wait->acknowledged = wait->acknowledged || wait->mid == mid;
    }
    unsubscribed_.notify_all();
}

void MqttClient::release(Subscriber* subscriber) noexcept {
    if (subscriber == nullptr) {
        return;
    }
    {
        std::lock_guard const lock(mainMutex_);
        engine_->registrations.removeAll(subscriber, [this](Topic const& topic) {
            unsubscribeAtBroker(nullptr, topic.text().c_str());
        });
    }
    engine_->dispatch.retire(subscriber, !onWorkerThread());
}

Error MqttClient::subscribeAtBroker(char const* topic) {
    std::lock_guard const lock(engine_->gate.mutex);
    if (!engine_->gate.online) {
        return Error::NO_CONN;
    }
    engine_->tuning.issued();
    return static_cast<Error>(mosqpp::mosquittopp::subscribe(nullptr, topic, 0));
}

Error MqttClient::unsubscribeAtBroker(int* mid, char const* topic) {
    std::lock_guard const lock(engine_->gate.mutex);
    if (!engine_->gate.online) {
        return Error::NO_CONN;
    }
    engine_->tuning.issued();
    return static_cast<Error>(mosqpp::mosquittopp::unsubscribe(mid, topic));
}

} // namespace mqtt
