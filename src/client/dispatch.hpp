#pragma once

#include "mqtt/client.hpp"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace mqtt {

/// The calls to the subscribers of one message, and the way out of them.
///
/// The worker copies the subscribers of a message here and calls them one by one, holding no
/// lock during a call. A subscriber that retires is struck off the copy and, when it is the one
/// being called, waited for; so it is neither called nor still being called once it is gone.
class Dispatch {
public:
    using Receiver = std::pair<MqttClient::Subscriber*, int>;

    /// Worker: takes over the receivers of one message. The caller holds the lock that guards
    /// the registry, so that a retirement comes either before the copy or finds it.
    void prepare(std::vector<Receiver> const& receivers);

    /// Worker: calls them. What a receiver throws ends its own call only: it would leave through
    /// the broker library, which holds a lock of its own then, and freeze the client for good.
    void deliver(Topic const& topic, std::string const& payload);

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
