#include "client/registry/registrations.hpp"

#include <algorithm>
#include <functional>
#include <utility>

namespace mqtt {

bool Registrations::Order::less(Key const& left, Key const& right) {
    if (left.subscriber != right.subscriber) {
        return std::less<>()(left.subscriber, right.subscriber);
    }
    return left.topic < right.topic;
}

void Registrations::add(Topic const& topic, Subscriber* subscriber, int tag) {
    auto const place = registry_.lower_bound(topic);
    bool const isKnown = place != registry_.end() && place->first == topic;
    if (isKnown) {
        place->second.subscribers.emplace_back(subscriber, tag);
    }
    auto const entry = isKnown ? place : addEntry(place, topic, subscriber, tag);
    try {
        pairs_.insert({subscriber, entry});
    } catch (...) {
        entry->second.subscribers.pop_back();
        if (!isKnown) {
            eraseEntry(entry);
        }
        throw;
    }
}

/// @param place the entry of the registry before which it is inserted
Registrations::Registry::iterator Registrations::addEntry(Registry::iterator place,
                                                          Topic const& topic,
                                                          Subscriber* subscriber, int tag) {
    // What needs memory comes first; the step that changes the registry needs none.
    Registry single;
    auto const made = single.emplace(topic, Subscription{topic, {{subscriber, tag}}}).first;
    index_.add(made->second);
    return registry_.insert(place, single.extract(made));
}

void Registrations::eraseEntry(Registry::iterator entry) noexcept {
    index_.remove(entry->second);
    registry_.erase(entry);
}

void Registrations::takeBack(Topic const& topic, Subscriber const* subscriber) noexcept {
    auto const pair = pairs_.find(Key{subscriber, topic});
    pair->entry->second.subscribers.pop_back();
    dropUnused(pair);
}

bool Registrations::remove(Topic const& topic, Subscriber const* subscriber) noexcept {
    auto const pair = pairs_.find(Key{subscriber, topic});
    if (pair == pairs_.end()) {
        return false;
    }
    auto& subscribers = pair->entry->second.subscribers;
    subscribers.erase(std::find_if(subscribers.begin(), subscribers.end(),
                                   [&](auto const& each) { return each.first == subscriber; }));
    return dropUnused(pair);
}

void Registrations::clear() noexcept {
    pairs_.clear();
    index_.clear();
    registry_.clear();
}

/// Removes a pair that has no registration any more, and its entry if that has none either.
/// @return whether the entry had none
bool Registrations::dropUnused(Pairs::iterator pair) noexcept {
    auto const entry = pair->entry;
    auto const& subscribers = entry->second.subscribers;
    bool const isUsed = std::any_of(subscribers.begin(), subscribers.end(), [&](auto const& each) {
        return each.first == pair->subscriber;
    });
    if (!isUsed) {
        pairs_.erase(pair);
    }
    bool const isAbandoned = subscribers.empty();
    if (isAbandoned) {
        eraseEntry(entry);
    }
    return isAbandoned;
}

/// Removes all registrations of the pair.
void Registrations::eraseSubscriber(Pair const& pair) noexcept {
    auto& subscribers = pair.entry->second.subscribers;
    subscribers.erase(
        std::remove_if(subscribers.begin(), subscribers.end(),
                       [&](auto const& each) { return each.first == pair.subscriber; }),
        subscribers.end());
}

} // namespace mqtt
