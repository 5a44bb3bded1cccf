#pragma once

#include "client/registry/subscription_index.hpp"

#include <map>

/// A registry with an index of it. The index must find what a walk through the registry finds.
class WalkedRegistry {
public:
    using Subscription = mqtt::MqttClient::Subscription;
    using Entries = std::map<mqtt::Topic, Subscription>;

    void add(mqtt::Topic const& topic) {
        auto const [entry, isNew] = entries_.try_emplace(topic, Subscription{topic, {}});
        if (isNew) {
            index_.add(entry->second);
        }
    }

    void remove(mqtt::Topic const& topic) {
        auto const entry = entries_.find(topic);
        index_.remove(entry->second);
        entries_.erase(entry);
    }

    void clear() {
        index_.clear();
        entries_.clear();
    }

    /// The first entry that matches, in byte order.
    Subscription const* walk(mqtt::Topic const& topic) const {
        for (auto const& entry : entries_) {
            if (entry.first.matches(topic)) {
                return &entry.second;
            }
        }
        return nullptr;
    }

    Subscription const* exact(mqtt::Topic const& topic) const {
        auto const entry = entries_.find(topic);
        return entry == entries_.end() ? nullptr : &entry->second;
    }

    Subscription const* find(mqtt::Topic const& topic) const { return index_.find(topic); }

    Entries const& entries() const { return entries_; }

private:
    Entries entries_;
    mqtt::SubscriptionIndex index_;
};
