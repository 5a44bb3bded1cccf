#include "client/implementation.hpp"
#include "common/wait.hpp"
#include "mqtt/client.hpp"

namespace mqtt {

using Error = MqttClient::Error;
using Urgency = BrokerGate::Urgency;

Error MqttClient::publish(Topic const& topic, std::string const& payload, int qos, bool retain) {
    return impl_->gate.publish(topic, payload, qos, retain, Urgency::IN_TURN).error;
}

Error MqttClient::publishWait(Topic const& topic, std::string const& payload, int qos, bool retain,
                              conv::SecondsDuration timeout) {
    auto& impl = *impl_;
    if (onWorkerThread()) {
        // The acknowledgement would have to be read by the very thread that waits for it.
        auto const submission = impl.gate.publish(topic, payload, qos, retain, Urgency::AT_ONCE);
        return submission.messageId ? Error::TIMEOUT : submission.error;
    }
    // Held from before the publication: its acknowledgement cannot come before the wait begins.
    std::unique_lock lock(deliveryMutex_);
    lastPublished_ = -1;
    auto const submission = impl.gate.publish(topic, payload, qos, retain, Urgency::AT_ONCE);
    if (!submission.messageId) {
        return submission.error;
    }
    auto const deadline = timeout.toTimepoint(std::chrono::steady_clock::now());
    bool const isDone = waitUntil(delivered_, lock, deadline,
                                  [&] { return lastPublished_ == *submission.messageId; });
    if (isDone) {
        impl.tuning.answerArrived();
    }
    return isDone ? Error::SUCCESS : Error::TIMEOUT;
}

Error MqttClient::clear(Topic const& topic) {
    return impl_->gate.clear(topic);
}

void MqttClient::on_publish(int mid) {
    impl_->losses.acknowledged(mid);
    impl_->gate.done(mid);
    if (impl_->worker.isGivingUpAPublication()) {
        return; // the broker has not acknowledged it
    }
    std::lock_guard const lock(deliveryMutex_);
    lastPublished_ = mid;
    delivered_.notify_all();
}

} // namespace mqtt
