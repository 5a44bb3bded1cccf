#include "support/recorder.hpp"

#include <algorithm>
#include <ostream>
#include <tuple>
#include <utility>

namespace support {

bool operator==(Delivery const& a, Delivery const& b) {
    return std::tie(a.tag, a.topic, a.payload) == std::tie(b.tag, b.topic, b.payload);
}

std::ostream& operator<<(std::ostream& out, Delivery const& delivery) {
    return out << "{" << delivery.tag << ", \"" << delivery.topic << "\", \"" << delivery.payload
               << "\"}";
}

MessageRecorder::MessageRecorder(Hook hook) : hook_(std::make_shared<Hook>(std::move(hook))) {}

std::vector<std::string> MessageRecorder::payloads() const {
    std::vector<std::string> result;
    for (Delivery const& delivery : deliveries()) {
        result.push_back(delivery.payload);
    }
    return result;
}

std::size_t MessageRecorder::count() const {
    return deliveries_.read([](auto const& all) { return all.size(); });
}

void MessageRecorder::clear() {
    deliveries_.change([](auto& all) { all.clear(); });
}

bool MessageRecorder::waitForCount(std::size_t count, std::chrono::milliseconds deadline) const {
    return deliveries_.waitFor([&](auto const& all) { return all.size() >= count; }, deadline);
}

bool MessageRecorder::waitFor(std::function<bool(std::vector<Delivery> const&)> const& condition,
                              std::chrono::milliseconds deadline) const {
    return deliveries_.waitFor(condition, deadline);
}

bool MessageRecorder::waitForPayload(std::string const& payload,
                                     std::chrono::milliseconds deadline) const {
    auto const arrived = [&](auto const& all) {
        return std::any_of(all.begin(), all.end(),
                           [&](Delivery const& one) { return one.payload == payload; });
    };
    return deliveries_.waitFor(arrived, deadline);
}

void MessageRecorder::onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) {
    // Who waits for this delivery may destroy the recorder as soon as it was kept.
    auto const hook = hook_;
    deliveries_.change([&](auto& all) { all.push_back({tag, topic.text(), payload}); });
    if (*hook) {
        (*hook)(tag, topic, payload);
    }
}

StateRecorder::StateRecorder(Hook hook) : hook_(std::make_shared<Hook>(std::move(hook))) {}

void StateRecorder::clear() {
    history_.change([](auto& all) { all.clear(); });
}

bool StateRecorder::waitFor(conv::ComState state, std::chrono::milliseconds deadline) const {
    return history_.waitFor([&](auto const& all) { return !all.empty() && all.back() == state; },
                            deadline);
}

bool StateRecorder::waitForHistory(History const& history,
                                   std::chrono::milliseconds deadline) const {
    return history_.waitFor([&](auto const& all) { return all == history; }, deadline);
}

void StateRecorder::onComStateChanged(conv::ComState state) {
    auto const hook = hook_;
    history_.change([&](auto& all) { all.push_back(state); });
    if (*hook) {
        (*hook)(state);
    }
}

} // namespace support
