#pragma once

#include "mqtt/client.hpp"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace mqtt {

/// Calls the subscribers of one message, and lets a subscriber leave in the middle of that.
///
/// The worker copies the subscribers of a message and calls them one by one, with no lock held
/// during a call. A subscriber that is retired is removed from the copy and, if it is being called,
/// waited for: afterwards it is neither called nor still being called.
class Dispatch {
public:
    using Receiver = std::pair<MqttClient::Subscriber*, int>;

    /// Worker: copies the receivers of one message. The caller holds the lock that guards the
    /// registry, so that a subscriber retires either before the copy is made or out of the copy.
    void prepare(std::vector<Receiver> const& receivers);

    /// Worker: calls them. An exception of a receiver ends only its own call: if it
    /// left the broker library's callback, a mutex of that library would stay locked for ever.
    /// @param clientId for the log
    void deliver(Topic const& topic, std::string const& payload, std::string const& clientId);

    /// Makes sure that `subscriber` is not called any more; with `wait`, also that it is not
    /// being called.
    void retire(MqttClient::Subscriber const* subscriber, bool wait);

private:
    bool beginCall(std::size_t& index, Receiver& receiver);

    std::mutex mutex_;
    std::condition_variable callEnded_;
    std::vector<Receiver> receivers_; ///< kept between messages for its memory
    MqttClient::Subscriber const* called_ = nullptr;
};

} // namespace mqtt
