#include "client/dispatch.hpp"

#include "common/application_call.hpp"

namespace mqtt {

void Dispatch::prepare(std::vector<Receiver> const& receivers) {
    std::lock_guard const lock(mutex_);
    receivers_ = receivers;
}

void Dispatch::deliver(Topic const& topic, std::string const& payload,
                       std::string const& clientId) {
    Receiver receiver;
    for (std::size_t i = 0; beginCall(i, receiver); ++i) {
        callApplication([&] { receiver.first->onMqttMessage(receiver.second, topic, payload); },
                        clientId, ": subscriber of ", topic.text());
    }
}

void Dispatch::retire(MqttClient::Subscriber const* subscriber, bool wait) {
    std::unique_lock lock(mutex_);
    for (auto& receiver : receivers_) {
        if (receiver.first == subscriber) {
            receiver.first = nullptr;
        }
    }
    if (wait) {
        callEnded_.wait(lock, [&] { return called_ != subscriber; });
    }
}

/// Ends the call under way and begins that of receiver `index` or of the next one that has not
/// retired; false when none is left.
bool Dispatch::beginCall(std::size_t& index, Receiver& receiver) {
    std::lock_guard const lock(mutex_);
    called_ = nullptr;
    callEnded_.notify_all();
    while (index < receivers_.size() && receivers_[index].first == nullptr) {
        ++index;
    }
    if (index == receivers_.size()) {
        receivers_.clear();
        return false;
    }
    receiver = receivers_[index];
    called_ = receiver.first;
    return true;
}

} // namespace mqtt
