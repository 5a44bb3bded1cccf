#include "client/broker_gate.hpp"

#include "client/arguments.hpp"

#include <utility>

namespace mqtt {

namespace {

/// Nobody is subscribed to it.
char const* const WAKE_TOPIC = "$zym/wake";

} // namespace

using Error = MqttClient::Error;

Submission BrokerGate::publish(Topic const& topic, std::string const& payload, int qos,
                               bool retain) {
    auto const wrongSize = checkSizes(topic, payload.size(), qos);
    if (wrongSize != Error::SUCCESS) {
        return {wrongSize, {}};
    }
    std::lock_guard const lock(mutex_);
    if (phase_ == Phase::ONLINE) {
        int mid = 0;
        auto const result = handOver(mid, topic, payload, qos, retain);
        if (result == Error::SUCCESS) {
            return {result, mid};
        }
        // The library has kept it and sends it with the next connection.
        if (result == Error::NO_CONN && qos != 0) {
            return {Error::SUCCESS, {}};
        }
        if (result != Error::NO_CONN && result != Error::CONN_LOST) {
            return {result, {}};
        }
    } else {
        auto const refused = checkPublication(topic, payload.size(), qos);
        if (refused != Error::SUCCESS) {
            return {refused, {}};
        }
    }
    queue_.push_back({topic, payload, qos, retain});
    return {Error::SUCCESS, {}};
}

Error BrokerGate::clear(Topic const& topic) {
    auto const refused = checkPublication(topic, 0, 2);
    if (refused != Error::SUCCESS) {
        return refused;
    }
    std::lock_guard const lock(mutex_);
    if (phase_ != Phase::ONLINE) {
        return Error::NO_CONN;
    }
    int mid = 0;
    auto const result = handOver(mid, topic, {}, 2, true);
    // If the connection has just ended, the library sends it with the next one.
    return result == Error::NO_CONN ? Error::SUCCESS : result;
}

Error BrokerGate::handOver(int& mid, Topic const& topic, std::string const& payload, int qos,
                           bool retain) {
    tuning_.packetIssued(qos != 0);
    auto const result = static_cast<Error>(library_.publish(
        &mid, topic.text().c_str(), static_cast<int>(payload.size()), payload.data(), qos, retain));
    if (qos != 0 && (result == Error::SUCCESS || result == Error::NO_CONN)) {
        losses_.handedOver(mid);
    }
    return result;
}

Error BrokerGate::subscribe(Topic const& topic) {
    std::lock_guard const lock(mutex_);
    return phase_ == Phase::ONLINE ? subscribeAgain(topic) : Error::NO_CONN;
}

Error BrokerGate::subscribeAgain(Topic const& topic) {
    tuning_.packetIssued();
    return static_cast<Error>(library_.subscribe(nullptr, topic.text().c_str(), 0));
}

Error BrokerGate::unsubscribe(int* mid, Topic const& topic) {
    return unsubscribe(mid, topic.text().c_str());
}

Error BrokerGate::unsubscribe(int* mid, char const* topic) {
    std::lock_guard const lock(mutex_);
    if (phase_ != Phase::ONLINE) {
        return Error::NO_CONN;
    }
    tuning_.packetIssued();
    return static_cast<Error>(library_.unsubscribe(mid, topic));
}

bool BrokerGate::wakeNetworkStep() {
    return unsubscribe(nullptr, WAKE_TOPIC) == Error::SUCCESS;
}

int BrokerGate::disconnect() {
    std::lock_guard const lock(mutex_);
    int const result = library_.disconnect();
    if (result == 0) {
        phase_ = Phase::LEAVING;
        hasDisconnect_ = true;
    }
    return result;
}

bool BrokerGate::leave() {
    std::lock_guard const lock(mutex_);
    bool const hasConnection = phase_ == Phase::ONLINE || library_.socket() >= 0;
    if (hasConnection) {
        phase_ = Phase::LEAVING;
    }
    return hasConnection;
}

/// The lock is held to the end: publishers wait for it, in place of making the queue longer for
/// ever.
bool BrokerGate::sendQueue() {
    std::lock_guard const lock(mutex_);
    if (phase_ == Phase::LEAVING) {
        return false;
    }
    while (!queue_.empty()) {
        auto const& first = queue_.front();
        int mid = 0;
        auto const result = handOver(mid, first.topic, first.payload, first.qos, first.retain);
        // With NO_CONN the library has kept a QoS 1 or 2 publication for itself.
        if (result == Error::CONN_LOST || (result == Error::NO_CONN && first.qos == 0)) {
            return false;
        }
        queue_.pop_front();
        if (result == Error::NO_CONN) {
            return false;
        }
    }
    phase_ = Phase::ONLINE;
    return true;
}

bool BrokerGate::goOffline() {
    std::lock_guard const lock(mutex_);
    return std::exchange(phase_, Phase::OFFLINE) == Phase::LEAVING;
}

bool BrokerGate::isOnline() {
    std::lock_guard const lock(mutex_);
    return phase_ == Phase::ONLINE;
}

bool BrokerGate::changeState(std::atomic<conv::ComState>& current, conv::ComState next) {
    std::lock_guard const lock(mutex_);
    bool const tooLate = next == conv::ComState::CONNECTED && phase_ != Phase::ONLINE;
    return !tooLate && current.exchange(next) != next;
}

void BrokerGate::dropQueue() {
    std::lock_guard const lock(mutex_);
    queue_.clear();
}

} // namespace mqtt
