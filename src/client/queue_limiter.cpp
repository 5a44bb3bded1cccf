#include "client/queue_limiter.hpp"

#include "common/user_call.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace mqtt {

namespace {

/// What the library gets at a time: enough for the network between two network steps. No more than
/// half of the limits, so that the other half can be dropped.
constexpr std::size_t WINDOW_BYTES = 65'536;
constexpr std::size_t WINDOW_MESSAGES = 100;

std::size_t memoryOf(Topic const& topic, std::size_t payloadSize) {
    return topic.text().size() + payloadSize + QueueLimits::BYTES_PER_MESSAGE;
}

std::size_t memoryOf(MqttClient::Publish const& publication) {
    return memoryOf(publication.topic, publication.payload.size());
}

} // namespace

QueueLimiter::QueueLimiter(QueueLimits const& limits, Queue& queue)
    : limits_(limits),
      windowBytes_(std::min(WINDOW_BYTES, limits.bytes / 2)),
      windowMessages_(std::min(WINDOW_MESSAGES, limits.messages / 2)),
      queue_(queue) {}

void QueueLimiter::countQueue() {
    queuedBytes_ = 0;
    for (auto const& publication : queue_) {
        queuedBytes_ += memoryOf(publication);
    }
}

void QueueLimiter::takeHeld(QueueLimiter& other) noexcept {
    held_.swap(other.held_);
    std::swap(heldBytes_, other.heldBytes_);
}

/// Whether a publication of that size would be within the limits.
bool QueueLimiter::fits(std::size_t bytes) const {
    auto const total = heldBytes_ + queuedBytes_;
    return queue_.size() + held_.size() < limits_.messages && total <= limits_.bytes
           && bytes <= limits_.bytes - total;
}

bool QueueLimiter::accepts(Topic const& topic, std::size_t payloadSize) const {
    auto const bytes = memoryOf(topic, payloadSize);
    if (fits(bytes)) {
        return true;
    }
    std::size_t messages = held_.size() + queue_.size();
    std::size_t total = heldBytes_ + queuedBytes_;
    if (limits_.policy == QueueLimits::Policy::DROP_OLDEST) {
        messages = held_.size();
        total = heldBytes_;
    } else if (limits_.policy == QueueLimits::Policy::NEWEST_OF_EACH_TOPIC) {
        if (auto const older = find(topic); older != queue_.end()) {
            messages -= 1;
            total -= memoryOf(*older);
        }
    }
    return messages < limits_.messages && total <= limits_.bytes && bytes <= limits_.bytes - total;
}

bool QueueLimiter::mustDropOldest(Topic const& topic, std::size_t payloadSize) const {
    return limits_.policy == QueueLimits::Policy::DROP_OLDEST && !queue_.empty()
           && !fits(memoryOf(topic, payloadSize));
}

bool QueueLimiter::appended() {
    queuedBytes_ += memoryOf(queue_.back());
    if (limits_.policy != QueueLimits::Policy::NEWEST_OF_EACH_TOPIC) {
        return false;
    }
    auto const older = find(queue_.back().topic);
    if (older == std::prev(queue_.cend())) {
        return false;
    }
    queuedBytes_ -= memoryOf(*older);
    queue_.erase(older);
    return true;
}

/// The first of a topic; with the policy that asks for it there is one only.
QueueLimiter::Queue::const_iterator QueueLimiter::find(Topic const& topic) const {
    return std::find_if(queue_.cbegin(), queue_.cend(), [&](auto const& publication) {
        return publication.topic.text() == topic.text();
    });
}

void QueueLimiter::beforePopFront() {
    queuedBytes_ -= memoryOf(queue_.front());
}

bool QueueLimiter::libraryHasRoom() const {
    return held_.empty() || (heldBytes_ < windowBytes_ && held_.size() < windowMessages_);
}

void QueueLimiter::handedOver(int messageId, Topic const& topic, std::size_t payloadSize,
                              int qos) noexcept {
    callUser([&] {
        auto const bytes = memoryOf(topic, payloadSize);
        held_.insert({messageId, Held{bytes, qos == 0}});
        heldBytes_ += bytes;
    });
}

void QueueLimiter::done(int messageId) {
    if (auto const found = held_.find(messageId); found != held_.end()) {
        heldBytes_ -= found->second.bytes;
        held_.erase(found);
    }
}

void QueueLimiter::connectionEnded() {
    for (auto one = held_.begin(); one != held_.end();) {
        if (one->second.isForgotten) {
            heldBytes_ -= one->second.bytes;
            one = held_.erase(one);
        } else {
            ++one;
        }
    }
}

} // namespace mqtt
