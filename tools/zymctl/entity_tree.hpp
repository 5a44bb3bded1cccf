#pragma once

#include "settings.hpp"

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What a device consists of: its base topic, the entities that this links to, and what these link
/// to. Follows all changes; its operations may be called on any thread.
class EntityTree final : private mqtt::MqttClient::Subscriber {
public:
    EntityTree(Context& context, mqtt::MqttClient& client, mqtt::Topic const& base);
    ~EntityTree() override { client_.release(this); }
    EntityTree(EntityTree const&) = delete;
    EntityTree& operator=(EntityTree const&) = delete;

    /// Waits until the base's links and the identification of each entity have arrived, and then
    /// until nothing more arrives.
    bool waitUntilComplete(Clock::time_point deadline);
    /// Waits for a change, and then until nothing more arrives.
    void waitForChange();

    bool isEmpty() const;
    std::vector<std::string> lines() const;
    std::string json() const;

private:
    enum Document : int { LINKS, IDENTIFICATION, COMMUNICATION, STATUS, COUNT };
    struct Entity {
        mqtt::Topic topic;
        std::string documents[COUNT];
        std::vector<std::size_t> linked;
    };
    using Path = std::vector<std::size_t>; ///< from the base: an entity may link to one above it

    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override;
    std::size_t indexOf(mqtt::Topic const& topic);
    void readLinks(Entity& entity);
    void subscribeToNew();
    std::optional<std::pair<std::size_t, mqtt::Topic>> takeNew();
    void waitForQuiet(Clock::time_point deadline);
    bool isComplete() const;
    std::string title(Entity const& entity, bool isBase) const;
    void addLines(std::vector<std::string>& lines, Path& path, std::string const& indent) const;
    std::string json(Path& path) const;

    Context& context_;
    mqtt::MqttClient& client_;
    // Guarded by Interruption::change and wait.
    std::deque<Entity> entities_; ///< the base is the first
    std::map<std::string, std::size_t> indices_;
    std::size_t subscribed_ = 0; ///< how many of them
    unsigned changes_ = 0;
    unsigned shown_ = 0;
};
