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
/// matches a topic, without testing the others.
///
/// The result is that of a walk through all patterns in byte order with `Topic::matches`. At each
/// level of a topic at most three branches of the tree can match: "#", "+" and the level itself.
/// They differ in their first byte, so every pattern of one branch comes before every pattern of
/// another. A search takes the branches in that order, so its first hit is the first match of all.
///
/// The cost of adding, removing and usually finding depends on the number of levels of one topic
/// only. A search visits more than a branch or two only if many patterns differ in nothing but the
/// positions of their "+"; it never visits a level of the tree twice.
///
/// Not safe for use from two threads at once.
class PatternIndex {
public:
    using Subscription = MqttClient::Subscription;

    PatternIndex() = default;
    PatternIndex(PatternIndex const&) = delete;
    PatternIndex& operator=(PatternIndex const&) = delete;
    ~PatternIndex() = default;

    /// @param subscription to be found by its topic, which has a wildcard and is not in the index
    ///        yet; must keep its address and its topic until it is removed
    /// @throws std::bad_alloc nothing has changed then
    void add(Subscription& subscription);
    /// Without effect if its topic is not in the index.
    void remove(Subscription const& subscription) noexcept;
    void clear() noexcept;

    /// The first in byte order of those that match; null when none does.
    Subscription* find(Topic const& topic) const;

    /// The number of nodes. Patterns share the nodes of the levels that they begin with in common.
    std::size_t size() const noexcept { return nodes_.size(); }

private:
    struct Node {
        Node* parent = nullptr;
        std::string level;
        Node* any = nullptr;           ///< the child for "+"
        Subscription* here = nullptr;  ///< the pattern that ends here
        Subscription* below = nullptr; ///< the pattern that ends with "#" on the next level
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
    Subscription* firstIrregular(Topic const& topic, Subscription* other) const;

    Node root_;
    HashTable<std::unique_ptr<Node>> nodes_; ///< all but the root, by parent and level
    /// What MQTT does not accept as a pattern, and patterns with too many levels for a recursive
    /// search. They are tested one by one.
    std::map<std::string_view, Subscription*> irregular_;
};

} // namespace mqtt
