#include "client/broker_gate.hpp"

#include "client/arguments.hpp"

#include <utility>

namespace mqtt {

namespace {

/// Nobody is subscribed to it.
char const* const WAKE_TOPIC = "$zym/wake";

} // namespace

using Error = MqttClient::Error;

std::unique_ptr<QueueLimiter> BrokerGate::limiterFor(ConnectionOptions const& options) {
    auto const& limits = options.queueLimits;
    bool const isQueueLimited = limits.messages != QueueLimits::NO_LIMIT
                                || limits.bytes != QueueLimits::NO_LIMIT
                                || limits.policy == QueueLimits::Policy::NEWEST_OF_EACH_TOPIC;
    std::lock_guard const lock(mutex_);
    if (!dropped_ && (isQueueLimited || options.maxPayloadToSend != QueueLimits::NO_LIMIT)) {
        dropped_ = std::make_unique<Statistics::Dropped>();
    }
    return isQueueLimited ? std::make_unique<QueueLimiter>(limits, queue_) : nullptr;
}

void BrokerGate::setLimits(ConnectionOptions const& options,
                           std::unique_ptr<QueueLimiter> limiter) noexcept {
    std::lock_guard const lock(mutex_);
    maxPayload_ = options.maxPayloadToSend;
    isLimited_ = limiter != nullptr;
    limiter_.swap(limiter);
    if (limiter_) {
        limiter_->countQueue();
    }
    if (limiter_ && limiter) {
        limiter_->takeHeld(*limiter);
    }
}

Submission BrokerGate::publish(Topic const& topic, std::string const& payload, int qos, bool retain,
                               Urgency urgency) {
    auto const wrongSize = checkSizes(topic, payload.size(), qos);
    if (wrongSize != Error::SUCCESS) {
        return {wrongSize, {}};
    }
    std::lock_guard const lock(mutex_);
    auto const forbidden = check(topic, payload.size(), qos);
    if (forbidden != Error::SUCCESS) {
        return {forbidden, {}};
    }
    if (phase_ == Phase::ONLINE && mayHandOver(topic, payload.size(), urgency)) {
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
    append(topic, payload, qos, retain);
    return {Error::SUCCESS, {}};
}

/// Whether the options forbid a publication.
Error BrokerGate::check(Topic const& topic, std::size_t payloadSize, int qos) {
    if (payloadSize > maxPayload_) {
        ++dropped_->tooLarge;
        return Error::PAYLOAD_SIZE;
    }
    if (!limiter_) {
        return Error::SUCCESS;
    }
    // First, so that nothing is dropped for what is not valid.
    auto const refused = checkPublication(topic, payloadSize, qos);
    if (refused == Error::SUCCESS && !limiter_->accepts(topic, payloadSize)) {
        ++dropped_->rejected;
        report_.publicationLost("rejected", topic.text(), payloadSize);
        return Error::NO_MEMORY;
    }
    return refused;
}

bool BrokerGate::mayHandOver(Topic const& topic, std::size_t payloadSize, Urgency urgency) {
    if (!limiter_) {
        return true;
    }
    if (urgency == Urgency::IN_TURN) {
        return queue_.empty() && limiter_->libraryHasRoom();
    }
    makeRoom(topic, payloadSize);
    while (!queue_.empty() && sendFirst()) {
    }
    return queue_.empty();
}

void BrokerGate::append(Topic const& topic, std::string const& payload, int qos, bool retain) {
    MqttClient::Publish publication{topic, payload, qos, retain};
    makeRoom(topic, payload.size());
    queue_.push_back(std::move(publication));
    if (limiter_ && limiter_->appended()) {
        ++dropped_->superseded;
    }
}

void BrokerGate::makeRoom(Topic const& topic, std::size_t payloadSize) {
    while (limiter_ && limiter_->mustDropOldest(topic, payloadSize)) {
        auto const& oldest = queue_.front();
        report_.publicationLost("dropped", oldest.topic.text(), oldest.payload.size());
        popFront();
        ++dropped_->oldest;
    }
}

void BrokerGate::popFront() {
    if (limiter_) {
        limiter_->beforePopFront();
    }
    queue_.pop_front();
}

void BrokerGate::forget(int messageId) {
    std::lock_guard const lock(mutex_);
    if (limiter_) {
        limiter_->done(messageId);
    }
}

void BrokerGate::fillLibrary() {
    std::lock_guard const lock(mutex_);
    while (phase_ == Phase::ONLINE && !queue_.empty() && limiter_ && limiter_->libraryHasRoom()
           && sendFirst()) {
    }
}

void BrokerGate::addTo(Statistics& statistics) {
    std::lock_guard const lock(mutex_);
    statistics.sent = sent_;
    statistics.sentBytes = sentBytes_;
    if (dropped_) {
        statistics.dropped = *dropped_;
    }
    statistics.subscriptionsRefused = refusedSubscriptions_.get();
    statistics.queued = queue_.size();
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
    auto const forbidden = check(topic, 0, 2);
    if (forbidden != Error::SUCCESS) {
        return forbidden;
    }
    if (!mayHandOver(topic, 0, Urgency::AT_ONCE)) {
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
    bool const isKept = result == Error::SUCCESS || (result == Error::NO_CONN && qos != 0);
    if (!isKept) {
        return result;
    }
    ++sent_;
    sentBytes_ += payload.size();
    if (qos != 0) {
        losses_.handedOver(mid);
    }
    if (limiter_) {
        limiter_->handedOver(mid, topic, payload.size(), qos);
    }
    return result;
}

Error BrokerGate::subscribe(int& mid, Topic const& topic) {
    std::lock_guard const lock(mutex_);
    return phase_ == Phase::ONLINE ? handOverSubscription(mid, topic) : Error::NO_CONN;
}

Error BrokerGate::subscribeAgain(Topic const& topic) {
    int mid = 0;
    return handOverSubscription(mid, topic);
}

Error BrokerGate::handOverSubscription(int& mid, Topic const& topic) {
    tuning_.packetIssued();
    auto const result = static_cast<Error>(library_.subscribe(&mid, topic.text().c_str(), 0));
    if (result == Error::SUCCESS) {
        unansweredSubscriptions_.add(mid, topic.text());
    }
    return result;
}

void BrokerGate::subscriptionAnswered(int messageId, bool isRefused) {
    if (!isRefused && !isLogged(LogLevel::ERROR)) {
        return;
    }
    std::string topic;
    {
        std::lock_guard const lock(mutex_);
        topic = unansweredSubscriptions_.remove(messageId);
    }
    if (isRefused) {
        refusedSubscriptions_.add(1);
        report_.subscriptionRefused(topic);
    }
}

Error BrokerGate::unsubscribe(int* mid, Topic const& topic) {
    std::lock_guard const lock(mutex_);
    return unsubscribe(mid, topic.text().c_str());
}

Error BrokerGate::unsubscribe(int* mid, char const* topic) {
    if (phase_ != Phase::ONLINE) {
        return Error::NO_CONN;
    }
    tuning_.packetIssued();
    return static_cast<Error>(library_.unsubscribe(mid, topic));
}

bool BrokerGate::wakeNetworkStep() {
    std::lock_guard const lock(mutex_);
    return phase_ == Phase::ACCEPTED || unsubscribe(nullptr, WAKE_TOPIC) == Error::SUCCESS;
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

void BrokerGate::connectionAccepted() {
    std::lock_guard const lock(mutex_);
    if (phase_ == Phase::OFFLINE) {
        phase_ = Phase::ACCEPTED;
    }
}

/// The lock is held to the end: publishers wait for it, in place of making the queue longer for
/// ever.
bool BrokerGate::sendQueue() {
    std::lock_guard const lock(mutex_);
    if (phase_ == Phase::LEAVING) {
        return false;
    }
    while (!queue_.empty()) {
        if (!sendFirst()) {
            return false;
        }
    }
    phase_ = Phase::ONLINE;
    return true;
}

/// @return false if there is no connection any more
bool BrokerGate::sendFirst() {
    auto const& first = queue_.front();
    int mid = 0;
    auto const result = handOver(mid, first.topic, first.payload, first.qos, first.retain);
    // With NO_CONN the library has kept a QoS 1 or 2 publication for itself.
    if (result == Error::CONN_LOST || (result == Error::NO_CONN && first.qos == 0)) {
        return false;
    }
    popFront();
    return result != Error::NO_CONN;
}

bool BrokerGate::goOffline() {
    std::lock_guard const lock(mutex_);
    if (limiter_) {
        limiter_->connectionEnded();
    }
    unansweredSubscriptions_.clear();
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
