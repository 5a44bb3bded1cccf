#pragma once

#include "client/broker_gate.hpp"
#include "client/dispatch.hpp"
#include "client/registry/registrations.hpp"
#include "client/subscription_order.hpp"
#include "mqtt/client.hpp"

#include <mutex>
#include <string>
#include <string_view>

namespace mqtt {

/// The registry of subscribers, kept the same at the broker, and the way of a message to them. The
/// client's main lock guards the registry.
class Subscriptions {
public:
    using Error = MqttClient::Error;
    using Subscriber = MqttClient::Subscriber;
    using Registry = Registrations::Registry;

    /// @param registry empty; changed through this object only
    Subscriptions(std::recursive_mutex& mainMutex, Registry& registry, BrokerGate& gate)
        : mainMutex_(mainMutex), registry_(registry), registrations_(registry), gate_(gate) {}

    Error add(Topic const& topic, Subscriber* subscriber, int tag);
    Error remove(Topic const& topic, Subscriber const* subscriber, int* mid);
    /// Removes a subscriber everywhere.
    /// @param wait until it is not being called any more
    void release(Subscriber const* subscriber, bool wait) noexcept;
    void removeAll();
    /// Sends the UNSUBSCRIBE packets that were held back; see `SubscriptionOrder`.
    /// @param now those that are due by then
    void sendHeldBack(SubscriptionOrder::Clock::time_point now);
    /// Worker: whether there may be such packets.
    bool holdsBack() const { return order_.holdsBack(); }

    /// Worker: hands a message to its subscribers.
    /// @param clientId for the log
    void deliver(Topic const& topic, std::string_view payload, std::string const& clientId);

    /// Worker, in the network step: the broker has acknowledged a SUBSCRIBE, or an UNSUBSCRIBE.
    void subscriptionAcknowledged(int mid);
    void unsubscriptionAcknowledged(int mid);

    /// Locks the registry.
    std::unique_lock<std::recursive_mutex> lock() const { return std::unique_lock(mainMutex_); }
    /// Worker: subscribes everything at a broker that has just accepted the connection.
    /// @return false if the connection broke
    bool subscribeAgain();

private:
    Error subscribe(Topic const& topic);
    Error unsubscribe(int* mid, Topic const& topic) noexcept;
    Error sendUnsubscription(int* mid, Topic const& topic) noexcept;

    std::recursive_mutex& mainMutex_;
    Registry const& registry_;
    Registrations registrations_;
    BrokerGate& gate_;
    Dispatch dispatch_;
    SubscriptionOrder order_;
};

} // namespace mqtt
