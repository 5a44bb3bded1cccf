#include "client/implementation.hpp"
#include "common/wait.hpp"
#include "mqtt/client.hpp"

#include <cstddef>

namespace mqtt {

using Error = MqttClient::Error;

Error MqttClient::subscribe(Topic const& topic, Subscriber* subscriber, int tag) {
    return impl_->subscriptions.add(topic, subscriber, tag);
}

Error MqttClient::unsubscribe(Topic const& topic, Subscriber* subscriber, int* mid) {
    return impl_->subscriptions.remove(topic, subscriber, mid);
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
    // Held from before the request: its acknowledgement cannot come before the wait begins.
    std::unique_lock lock(unsubscriptionMutex_);
    lastUnsubscribed_ = -1;
    int mid = -1;
    auto const result = unsubscribe(topic, subscriber, &mid);
    if (result != Error::SUCCESS) {
        return result;
    }
    UnsubscriptionWaits::Wait const wait(impl_->unsubscriptionWaits, mid);
    auto const deadline = timeout.toTimepoint(std::chrono::steady_clock::now());
    return waitUntil(unsubscribed_, lock, deadline, [&] { return wait.isAcknowledged(); })
               ? Error::SUCCESS
               : Error::TIMEOUT;
}

void MqttClient::release(Subscriber* subscriber) noexcept {
    if (subscriber != nullptr) {
        bool const wait = !onWorkerThread();
        impl_->subscriptions.release(subscriber, wait);
    }
}

void MqttClient::on_message(mosquitto_message const* message) {
    auto& impl = *impl_;
    auto const size = static_cast<std::size_t>(message->payloadlen);
    if (size > impl.maxPayloadToReceive) {
        impl.receivedDropped.add(1);
        impl.report.messageDropped(message->topic, size);
        return;
    }
    try {
        auto& topic = impl.receivedTopic;
        topic.assign(message->topic);
        impl.received.add(1);
        impl.receivedBytes.add(size);
        impl.tuning.messageReceived();
        impl.subscriptions.deliver(topic, {static_cast<char const*>(message->payload), size},
                                   clientId_);
    } catch (...) {
        impl.receivedDropped.add(1);
        // Out of memory: this message is lost, the client is not.
    }
}

void MqttClient::on_subscribe(int mid, int count, int const* granted) {
    constexpr int refused = 128; // in place of a QoS
    impl_->gate.subscriptionAnswered(mid, count > 0 && granted[0] == refused);
    impl_->subscriptions.subscriptionAcknowledged(mid);
}

void MqttClient::on_unsubscribe(int mid) {
    {
        std::lock_guard const lock(unsubscriptionMutex_);
        lastUnsubscribed_ = mid;
        impl_->unsubscriptionWaits.acknowledge(mid);
        unsubscribed_.notify_all();
    }
    impl_->subscriptions.unsubscriptionAcknowledged(mid);
}

} // namespace mqtt
