#include "mqtt/data.hpp"

#include "common/endpoint_report.hpp"
#include "common/wait.hpp"

#include <utility>

namespace mqtt {

namespace {

conv::SecondsDuration const BROKER_TIMEOUT{5};

} // namespace

using Error = MqttClient::Error;

MqttDataBase::MqttDataBase(MqttClient& client, Topic const& topic, int qos, bool retained,
                           Topic const& subscribeTopic)
    : topicBase_(topic),
      client_(client),
      qos_(qos),
      retained_(retained),
      subscribeTopic_(subscribeTopic) {
    subscribeAtOnce();
}

MqttDataBase::MqttDataBase(MqttClient& client, Topic const& topic, int qos, bool retained)
    : MqttDataBase(client, topic, qos, retained, Topic()) {}

MqttDataBase::MqttDataBase(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic, 0, false) {}

MqttDataBase::MqttDataBase(MqttDataBase const& other) : MqttDataBase(other, Unsubscribed()) {
    subscribeLike(other);
}

MqttDataBase::MqttDataBase(MqttDataBase const& other, Unsubscribed)
    : MqttDataBase(other, Lock(other.mutex_)) {}

MqttDataBase::MqttDataBase(MqttDataBase const& other, Lock const& /*lockOfOther*/)
    : MqttDataBase(other.client_, other.topicBase_, other.qos_, other.retained_) {}

MqttDataBase::~MqttDataBase() {
    release();
}

void MqttDataBase::subscribeLike(MqttDataBase const& other) {
    {
        Lock const lock(other.mutex_);
        subscribeTopic_ = other.subscribeTopic_;
    }
    subscribeAtOnce();
}

void MqttDataBase::subscribeAtOnce() {
    if (subscribeTopic_.size() > 0) {
        static_cast<void>(client_.subscribe(subscribeTopic_, this, 0));
    }
}

void MqttDataBase::release() noexcept {
    client_.release(this);
}

void MqttDataBase::setTopicBase(Topic const& topic) {
    topicBase_ = topic;
}

Error MqttDataBase::subscribe(int id, Lock& lock) {
    Topic topic;
    getSubscribeTopic(topic);
    subscribeTopic_ = topic;
    lock.unlock();
    return client_.subscribe(topic, this, id);
}

Error MqttDataBase::unsubscribe(Lock& lock) {
    Topic const topic = subscribeTopic_;
    lock.unlock();
    return client_.unsubscribe(topic, this);
}

Error MqttDataBase::unsubscribeWait(Lock& lock) {
    Topic const topic = subscribeTopic_;
    lock.unlock();
    return client_.unsubscribeWait(topic, this, BROKER_TIMEOUT);
}

MqttDataBase::Message MqttDataBase::currentMessage(Lock& lock) {
    Message message;
    getPublishTopic(message.topic);
    serialize(message.topic, message.payload);
    lock.unlock();
    return message;
}

Error MqttDataBase::handOver(Message const& message, bool wait) {
    return wait ? client_.publishWait(message.topic, message.payload, qos_, retained_,
                                      BROKER_TIMEOUT)
                : client_.publish(message.topic, message.payload, qos_, retained_);
}

Error MqttDataBase::send(bool wait, Lock& lock) {
    return handOver(currentMessage(lock), wait);
}

void MqttDataBase::publish(Lock& lock) {
    send(false, lock);
}

void MqttDataBase::publish() {
    Lock lock(mutex_);
    publish(lock);
}

void MqttDataBase::publishWait(Lock& lock) {
    send(true, lock);
}

void MqttDataBase::publishWait() {
    Lock lock(mutex_);
    publishWait(lock);
}

Error MqttDataBase::clean(bool wait, Lock& lock) {
    Message message;
    getPublishTopic(message.topic);
    lock.unlock();
    return handOver(message, wait);
}

Error MqttDataBase::clean() {
    Lock lock(mutex_);
    return clean(false, lock);
}

Error MqttDataBase::cleanWait() {
    Lock lock(mutex_);
    return clean(true, lock);
}

Error MqttDataBase::setCurrentValueAsWill() {
    Lock lock(mutex_);
    auto const message = currentMessage(lock);
    return client_.setWill(message.topic, message.payload, qos_, retained_);
}

void MqttDataBase::Arrival::report(std::exception_ptr error) noexcept {
    std::lock_guard const lock(mutex_);
    isReported_ = true;
    error_ = std::move(error);
    reported_.notify_all();
}

bool MqttDataBase::Arrival::isReported() const {
    std::lock_guard const lock(mutex_);
    return isReported_;
}

void MqttDataBase::Arrival::wait(std::chrono::seconds timeout) {
    auto const deadline = deadlineAfter(timeout);
    std::unique_lock lock(mutex_);
    waitUntil(reported_, lock, deadline, [this] { return isReported_; });
}

void MqttDataBase::Arrival::rethrow() const {
    std::lock_guard const lock(mutex_);
    if (error_) {
        std::rethrow_exception(error_);
    }
}

void MqttDataBase::getPublishTopic(Topic& topic) {
    topic = topicBase_;
}

void MqttDataBase::getSubscribeTopic(Topic& topic) {
    topic = topicBase_;
}

void MqttDataBase::onMqttMessage(int id, Topic const& topic, std::string const& payload) {
    Lock lock(mutex_);
    bool const empty = payload.empty();
    try {
        deserialize(topic, payload, empty);
    } catch (std::exception const& cause) {
        // A message that cannot be read is dropped: its publisher cannot be told.
        lock.unlock();
        client_.endpointReport().documentDropped(topic.text(), cause);
        return;
    }
    // The listener may destroy this endpoint; `notify` has then released the lock.
    notify(empty, id, lock);
}

} // namespace mqtt
