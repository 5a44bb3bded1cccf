// Adds and removes subscriptions, and compares which one the index finds for a topic with a linear
// search of the registry.

#include "client/walked_registry.hpp"
#include "fuzz/target.hpp"

namespace {

using mqtt::Topic;

void compare(WalkedRegistry const& registry, Topic const& topic) {
    auto const* const exact = registry.exact(topic);
    auto const* const expected = exact != nullptr ? exact : registry.walk(topic);
    fuzz::require(registry.find(topic) == expected, "the index finds what the linear search finds");
}

} // namespace

void fuzz::run(std::string_view bytes) {
    WalkedRegistry registry;
    for (fuzz::Lines lines(bytes); !lines.none();) {
        std::string const line = lines.next();
        if (line.empty()) {
            continue;
        }
        // Cut at a zero byte: subscriptions and received topics have none.
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
    // A subscription is also found by its own text.
    for (auto const& entry : registry.entries()) {
        compare(registry, entry.first);
    }
}
