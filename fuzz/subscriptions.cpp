// The choice of a subscription by the index, against the plain walk through the registry, while
// subscriptions come and go.

#include "client/registry/subscription_index.hpp"

#include "client/walked_registry.hpp"
#include "fuzz/lines.hpp"
#include "fuzz/target.hpp"

namespace {

using mqtt::Topic;
using Registry = WalkedRegistry<mqtt::SubscriptionIndex>;

void compare(Registry const& registry, Topic const& topic) {
    auto const* const exact = registry.exact(topic);
    auto const* const expected = exact != nullptr ? exact : registry.walk(topic);
    fuzz::require(registry.find(topic) == expected, "the index finds what the walk does");
}

void run(std::string_view bytes) {
    Registry registry;
    for (fuzz::Lines lines(bytes); !lines.none();) {
        std::string const line = lines.next();
        if (line.empty()) {
            continue;
        }
        // Without zero bytes: none is subscribed to, and none is received.
        Topic const topic(line.c_str() + 1);
        if (line[0] == '+') {
            registry.add(topic);
        } else if (line[0] == '-' && registry.exact(topic) != nullptr) {
            registry.remove(topic);
        } else if (line[0] == '0') {
            registry.clear();
        }
        compare(registry, topic);
    }
    // Every one left is found by its text, whatever it is.
    for (auto const& entry : registry.entries()) {
        compare(registry, entry.first);
    }
}

fuzz::Target const SUBSCRIPTIONS("subscriptions", run);

} // namespace
