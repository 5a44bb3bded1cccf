#pragma once

#include "client/registry/hash_table.hpp"
#include "client/registry/pattern_index.hpp"
#include "mqtt/client.hpp"

namespace mqtt {

/// Finds the subscription that a message goes to, at a cost that does not grow with their
/// number: the one with exactly its topic, or else the first matching pattern in byte order.
///
/// Kept next to the registry, under the same lock.
class SubscriptionIndex {
public:
    using Subscription = MqttClient::Subscription;

    /// @param subscription to be found by its topic, which must not be in the index yet; must keep
    ///        its address and its topic until it is removed
    /// @throws std::bad_alloc nothing has changed then
    void add(Subscription& subscription);
    void remove(Subscription const& subscription) noexcept;
    void clear() noexcept;

    /// Null when nobody is subscribed.
    Subscription* find(Topic const& topic) const;

private:
    HashTable<Subscription*> texts_;
    PatternIndex patterns_;
};

} // namespace mqtt
