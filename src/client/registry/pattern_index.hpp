#pragma once

#include "client/registry/hash_table.hpp"
#include "mqtt/client.hpp"

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace mqtt {

/// The subscriptions with a wildcard as a tree of levels: finds the first in byte order that
/// matches a topic without a look at the others.
///
/// Its answer is that of a walk in byte order with `Topic::matches`. At each level of a topic at
/// most three branches of the tree can match: "#", "+" and the level itself. They differ in their
/// first byte, so every pattern of one branch comes before every pattern of another, and what a
/// search that takes the branches in that order meets first is first of all.
///
/// Adding, removing and, as a rule, finding cost what the levels of one topic cost. A search only
/// meets more than a branch or two where many patterns differ in nothing but where their "+"
/// stand; it never meets more levels than there are.
///
/// Not safe for use from two threads at once.
class PatternIndex {
public:
    using Subscription = MqttClient::Subscription;

    PatternIndex() = default;
    PatternIndex(PatternIndex const&) = delete;
    PatternIndex& operator=(PatternIndex const&) = delete;
    ~PatternIndex() = default;

    /// @param subscription to be found by its topic, one with a wildcard that does not stand here
    ///        yet; must keep its place and its topic until it is removed
    /// @throws std::bad_alloc nothing has changed then
    void add(Subscription& subscription);
    /// Without effect when nothing has its topic.
    void remove(Subscription const& subscription) noexcept;
    void clear() noexcept;

    /// The first in byte order of those that match; null when none does.
    Subscription* find(Topic const& topic) const;

    /// How many levels the tree has, over all patterns.
    std::size_t size() const noexcept { return nodes_.size(); }

private:
    struct Node {
        Node* parent = nullptr;
        std::string level;
        Node* any = nullptr;           ///< the child for "+"
        Subscription* here = nullptr;  ///< the pattern that ends here
        Subscription* below = nullptr; ///< the one that goes on with "#"
        std::size_t children = 0;
    };
    /// Whether a node is the child of this parent for this level.
    struct IsChild {
        Node const& parent;
        std::string_view level;
        bool operator()(Node const& node) const noexcept {
            return node.parent == &parent && node.level == level;
        }
    };
    class Levels;

    static std::size_t hashOf(Node const& parent, std::string_view level);
    Node* child(Node const& parent, std::string_view level) const;
    Node* grow(Node& parent, std::string_view level);
    void prune(Node* node) noexcept;
    Subscription* search(Node const& node, Levels const& levels) const;
    Subscription* searchNamed(Node const& node, Levels const& levels) const;
    Subscription* firstOdd(Topic const& topic, Subscription* rival) const;

    Node root_;
    HashTable<std::unique_ptr<Node>> nodes_; ///< all but the root, by parent and level
    /// Walked: what is no pattern to MQTT, and what has more levels than a search may be deep.
    std::map<std::string_view, Subscription*> odd_;
};

} // namespace mqtt
