#include "client/registry/pattern_index.hpp"

#include <mosquitto.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

namespace mqtt {

namespace {

constexpr char const* WILDCARDS = "+#";

// A search calls itself for each level, so their number needs a limit.
constexpr std::ptrdiff_t MOST_LEVELS = 64;

bool isIrregular(std::string const& pattern) {
    return pattern.empty() || pattern.find('\0') != std::string::npos
           || mosquitto_sub_topic_check(pattern.c_str()) != 0
           || std::count(pattern.begin(), pattern.end(), '/') >= MOST_LEVELS;
}

} // namespace

/// The rest of a topic or pattern, from some level on.
class PatternIndex::Levels {
public:
    explicit Levels(std::string_view text) : text_(text), end_(endOfFirst()) {}

    bool none() const { return end_ == NONE; }
    bool one() const { return end_ == text_.size(); }
    std::string_view first() const { return text_.substr(0, end_); }

    void dropFirst() {
        if (one()) {
            end_ = NONE;
            return;
        }
        text_.remove_prefix(end_ + 1);
        end_ = endOfFirst();
    }

    Levels rest() const {
        Levels result = *this;
        result.dropFirst();
        return result;
    }

private:
    static constexpr std::size_t NONE = std::string_view::npos;

    std::size_t endOfFirst() const { return std::min(text_.find('/'), text_.size()); }

    std::string_view text_;
    std::size_t end_; ///< of the first level; NONE when there is no level
};

std::size_t PatternIndex::hashOf(Node const& parent, std::string_view level) {
    constexpr std::uint64_t SPREAD = 0x9E3779B97F4A7C15U;
    auto const mixed =
        (std::hash<std::string_view>()(level) ^ reinterpret_cast<std::uintptr_t>(&parent)) * SPREAD;
    return static_cast<std::size_t>(mixed ^ (mixed >> 32U));
}

void PatternIndex::add(Subscription& subscription) {
    auto const& pattern = subscription.topic.text();
    if (isIrregular(pattern)) {
        irregular_.emplace(pattern, &subscription);
        return;
    }
    Node* node = &root_;
    try {
        for (Levels levels(pattern); !levels.none(); levels.dropFirst()) {
            if (levels.first() == "#") {
                node->below = &subscription;
                return;
            }
            node = grow(*node, levels.first());
        }
    } catch (...) {
        prune(node);
        throw;
    }
    node->here = &subscription;
}

void PatternIndex::remove(Subscription const& subscription) noexcept {
    auto const& pattern = subscription.topic.text();
    if (irregular_.erase(pattern) != 0) {
        return;
    }
    Node* node = &root_;
    Levels levels(pattern);
    for (; node != nullptr && !levels.none() && levels.first() != "#"; levels.dropFirst()) {
        node = child(*node, levels.first());
    }
    if (node == nullptr) {
        return;
    }
    (levels.none() ? node->here : node->below) = nullptr;
    prune(node);
}

void PatternIndex::clear() noexcept {
    nodes_.clear();
    irregular_.clear();
    root_ = Node();
}

MqttClient::Subscription* PatternIndex::find(Topic const& topic) const {
    std::string_view const text = topic.text().c_str(); // as `matches` takes it
    // Neither an empty topic nor one with a wildcard matches anything.
    if (text.empty() || text.find_first_of(WILDCARDS) != std::string_view::npos) {
        return nullptr;
    }
    Levels const levels(text);
    // A wildcard on the first level does not match a topic that begins with "$".
    auto* const found = text.front() == '$' ? searchNamed(root_, levels) : search(root_, levels);
    return irregular_.empty() ? found : firstIrregular(topic, found);
}

/// The first match among the patterns below `node`; `levels` are the levels after that of the node.
MqttClient::Subscription* PatternIndex::search(Node const& node, Levels const& levels) const {
    if (levels.none()) {
        return node.here != nullptr ? node.here : node.below; // "a/#" matches "a" too
    }
    auto const level = levels.first();
    // The byte that a pattern with this level has where other patterns have their wildcard.
    auto const next = static_cast<unsigned char>(level.empty() ? '/' : level.front());
    // If the empty level is the last one, as in "a/", the pattern ends here and comes first.
    if (level.empty() && levels.one()) {
        auto const* const named = child(node, level);
        if (named != nullptr && named->here != nullptr) {
            return named->here;
        }
    }
    if (node.below != nullptr && next > '#') {
        return node.below;
    }
    auto* found = next < '+' ? searchNamed(node, levels) : nullptr;
    if (found == nullptr) {
        found = node.below;
    }
    if (found == nullptr && node.any != nullptr) {
        found = search(*node.any, levels.rest());
    }
    if (found == nullptr && next > '+') {
        found = searchNamed(node, levels);
    }
    return found;
}

MqttClient::Subscription* PatternIndex::searchNamed(Node const& node, Levels const& levels) const {
    auto const* const named = child(node, levels.first());
    return named == nullptr ? nullptr : search(*named, levels.rest());
}

/// The first match among the irregular patterns, or `other` if that comes before it.
MqttClient::Subscription* PatternIndex::firstIrregular(Topic const& topic,
                                                       Subscription* other) const {
    for (auto const& [pattern, subscription] : irregular_) {
        if (other != nullptr && other->topic.text() < pattern) {
            break;
        }
        if (subscription->topic.matches(topic)) {
            return subscription;
        }
    }
    return other;
}

PatternIndex::Node* PatternIndex::child(Node const& parent, std::string_view level) const {
    auto const* const found = nodes_.find(hashOf(parent, level), IsChild{parent, level});
    return found == nullptr ? nullptr : found->get();
}

PatternIndex::Node* PatternIndex::grow(Node& parent, std::string_view level) {
    if (auto* const known = child(parent, level)) {
        return known;
    }
    auto made = std::make_unique<Node>();
    auto* const node = made.get();
    node->parent = &parent;
    node->level = level;
    nodes_.insert(hashOf(parent, level), std::move(made));
    ++parent.children;
    if (level == "+") {
        parent.any = node;
    }
    return node;
}

/// Removes a node that no pattern needs any more, and the nodes above that become unneeded by it.
void PatternIndex::prune(Node* node) noexcept {
    while (node != &root_ && node->children == 0 && node->here == nullptr
           && node->below == nullptr) {
        auto* const parent = node->parent;
        if (parent->any == node) {
            parent->any = nullptr;
        }
        --parent->children;
        auto const hash = hashOf(*parent, node->level);
        nodes_.erase(hash, [node](Node const& other) { return &other == node; });
        node = parent;
    }
}

} // namespace mqtt
