#pragma once

#include "client/registry/subscription_index.hpp"
#include "mqtt/client.hpp"

#include <map>
#include <set>

namespace mqtt {

/// Changes the registry together with the indexes that find its entries by topic and by subscriber.
/// If memory runs out, nothing changes. The cost of a change hardly grows with the number of
/// entries.
///
/// Not safe for use from two threads at once: the client's main lock guards it.
class Registrations {
public:
    using Subscription = MqttClient::Subscription;
    using Subscriber = MqttClient::Subscriber;
    using Registry = std::map<Topic, Subscription>;

    /// @param registry empty; changed through this object only
    explicit Registrations(Registry& registry) : registry_(registry) {}

    /// @throws std::bad_alloc nothing has changed then
    void add(Topic const& topic, Subscriber* subscriber, int tag);
    /// Undoes the last `add`, which was for this topic and subscriber.
    void takeBack(Topic const& topic, Subscriber const* subscriber) noexcept;
    /// Removes the first registration of a subscriber on a topic.
    /// @return whether there was one, and no subscriber is left on that topic
    bool remove(Topic const& topic, Subscriber const* subscriber) noexcept;
    /// Removes a subscriber everywhere.
    /// @param abandoned called with each topic that no subscriber is left on, in byte order
    template <class Abandoned>
    void removeAll(Subscriber const* subscriber, Abandoned const& abandoned) noexcept;
    void clear() noexcept;

    /// The subscription that gets the messages on this topic; null when there is none.
    Subscription* find(Topic const& topic) const { return index_.find(topic); }

private:
    /// A subscriber that is registered for a topic, once or more often.
    struct Pair {
        Subscriber const* subscriber;
        Registry::iterator entry;
    };
    struct Key {
        Subscriber const* subscriber;
        Topic const& topic;
    };
    struct Order {
        using is_transparent = void;
        static Key keyOf(Pair const& pair) { return {pair.subscriber, pair.entry->first}; }
        static Key keyOf(Key const& key) { return key; }
        template <class Left, class Right>
        bool operator()(Left const& left, Right const& right) const {
            return less(keyOf(left), keyOf(right));
        }
        static bool less(Key const& left, Key const& right);
    };
    using Pairs = std::set<Pair, Order>;

    Registry::iterator addEntry(Registry::iterator place, Topic const& topic,
                                Subscriber* subscriber, int tag);
    void eraseEntry(Registry::iterator entry) noexcept;
    bool dropUnused(Pairs::iterator pair) noexcept;
    void eraseSubscriber(Pair const& pair) noexcept;

    Registry& registry_;
    SubscriptionIndex index_; ///< of the registry's entries
    Pairs pairs_;
};

template <class Abandoned>
void Registrations::removeAll(Subscriber const* subscriber, Abandoned const& abandoned) noexcept {
    Topic const first; // no other topic comes before it
    auto next = pairs_.lower_bound(Key{subscriber, first});
    while (next != pairs_.end() && next->subscriber == subscriber) {
        auto const pair = next++;
        eraseSubscriber(*pair);
        if (pair->entry->second.subscribers.empty()) {
            abandoned(pair->entry->first);
        }
        dropUnused(pair);
    }
}

} // namespace mqtt
