#include "entity_tree.hpp"

#include "documents.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <algorithm>
#include <exception>

using mqtt::Topic;

namespace {

constexpr auto QUIET = std::chrono::milliseconds(300);
/// The levels of the documents below an entity's topic; links are on the topic itself.
constexpr char const* LEVELS[] = {"", "identification", "communication", "status"};

void deserialize(std::string const& payload, conv::Identification& value) {
    mqtt::MqttData<conv::Identification>::deserialize(Topic(), payload, payload.empty(), value);
}

} // namespace

EntityTree::EntityTree(Context& context, mqtt::MqttClient& client, Topic const& base)
    : context_(context), client_(client) {
    indexOf(base);
    subscribeToNew();
}

void EntityTree::onMqttMessage(int tag, Topic const& /*topic*/, std::string const& payload) {
    context_.interruption.change([&] {
        auto& entity = entities_[static_cast<std::size_t>(tag) / COUNT];
        entity.documents[tag % COUNT] = payload;
        ++changes_;
        if (tag % COUNT == LINKS) {
            readLinks(entity);
        }
    });
    subscribeToNew();
}

void EntityTree::readLinks(Entity& entity) {
    std::vector<mqtt::Link> links;
    try {
        auto const& payload = entity.documents[LINKS];
        mqtt::MqttDataCollection<mqtt::Link>::deserialize(entity.topic, payload, payload.empty(),
                                                          links);
    } catch (std::exception const&) {
        return; // another document
    }
    entity.linked.clear();
    for (auto const& link : links) {
        entity.linked.push_back(indexOf(link.id));
    }
}

std::size_t EntityTree::indexOf(Topic const& topic) {
    auto const added = indices_.emplace(topic.text(), entities_.size());
    if (added.second) {
        entities_.push_back({topic, {}, {}});
    }
    return added.first->second;
}

/// Without the lock while the client is called. Runs on the worker, at first also beside it on the
/// thread that makes the tree. A link that is no topic cannot be subscribed to, and stays without
/// documents.
void EntityTree::subscribeToNew() {
    while (auto const next = takeNew()) {
        for (int document = 0; document < COUNT; ++document) {
            static_cast<void>(client_.subscribe(next->second + LEVELS[document], this,
                                                static_cast<int>(next->first) * COUNT + document));
        }
    }
}

/// The place and the topic of an entity that nobody has subscribed to yet.
std::optional<std::pair<std::size_t, Topic>> EntityTree::takeNew() {
    std::optional<std::pair<std::size_t, Topic>> next;
    context_.interruption.change([&] {
        if (subscribed_ < entities_.size()) {
            next.emplace(subscribed_, entities_[subscribed_].topic);
            ++subscribed_;
        }
    });
    return next;
}

bool EntityTree::isComplete() const {
    return !entities_.front().documents[LINKS].empty()
           && std::none_of(entities_.begin() + 1, entities_.end(), [](Entity const& entity) {
                  return entity.documents[IDENTIFICATION].empty();
              });
}

bool EntityTree::waitUntilComplete(Clock::time_point deadline) {
    bool const complete = context_.interruption.wait(deadline, [this] { return isComplete(); });
    waitForQuiet(deadline);
    return complete;
}

void EntityTree::waitForQuiet(Clock::time_point deadline) {
    do {
        context_.interruption.change([this] { shown_ = changes_; });
    } while (context_.interruption.wait(std::min(deadline, Clock::now() + QUIET), [this] {
        return changes_ != shown_;
    }) && Clock::now() < deadline);
}

void EntityTree::waitForChange() {
    context_.interruption.wait(Clock::time_point::max(), [this] { return changes_ != shown_; });
    waitForQuiet(Clock::now() + 3 * QUIET);
}

bool EntityTree::isEmpty() const {
    bool empty = true;
    context_.interruption.change([&] {
        auto const& documents = entities_.front().documents;
        empty = std::all_of(std::begin(documents), std::end(documents),
                            [](std::string const& document) { return document.empty(); });
    });
    return empty;
}

std::string EntityTree::title(Entity const& entity, bool isBase) const {
    using Colour = Console::Colour;
    conv::Identification self;
    deserialize(entity.documents[IDENTIFICATION], self);
    auto text = self.name.empty() ? printable(entity.topic.text()) : printable(self.name);
    text = context_.console.paint(Colour::BLUE, text);
    if (!self.name.empty()) {
        text += "  " + printable(entity.topic.text());
    }
    for (auto const* part :
         {&self.manufacturer, &self.model, &self.serial, &self.version, &self.location}) {
        text += part->empty() ? "" : "  " + printable(*part);
    }
    if (entity.documents[IDENTIFICATION].empty() && !isBase) {
        text += "  " + context_.console.paint(Colour::RED, "no identification");
    }
    for (auto const document : {COMMUNICATION, STATUS}) {
        if (!entity.documents[document].empty()) {
            auto const words =
                describe(entity.topic + LEVELS[document], entity.documents[document]);
            text += "  " + context_.console.paint(Colour::GREEN, words);
        }
    }
    return text;
}

void EntityTree::addLines(std::vector<std::string>& lines, Path& path,
                          std::string const& indent) const {
    auto const& linked = entities_[path.back()].linked;
    for (std::size_t i = 0; i < linked.size(); ++i) {
        bool const isLast = i + 1 == linked.size();
        lines.push_back(indent + (isLast ? "`-- " : "|-- ") + title(entities_[linked[i]], false));
        if (std::find(path.begin(), path.end(), linked[i]) == path.end()) {
            path.push_back(linked[i]);
            addLines(lines, path, indent + (isLast ? "    " : "|   "));
            path.pop_back();
        }
    }
}

std::vector<std::string> EntityTree::lines() const {
    std::vector<std::string> lines;
    context_.interruption.change([&] {
        Path path{0};
        lines.push_back(title(entities_.front(), true));
        addLines(lines, path, "");
    });
    return lines;
}

std::string EntityTree::json(Path& path) const {
    auto const& entity = entities_[path.back()];
    JsonLine line;
    line.text("topic", entity.topic.text());
    for (auto const document : {IDENTIFICATION, COMMUNICATION, STATUS}) {
        if (isJsonObject(entity.documents[document])) {
            line.raw(LEVELS[document], entity.documents[document]);
        }
    }
    std::string links;
    for (auto const index : entity.linked) {
        if (std::find(path.begin(), path.end(), index) == path.end()) {
            path.push_back(index);
            links += (links.empty() ? "" : ",") + json(path);
            path.pop_back();
        }
    }
    return line.raw("entities", '[' + links + ']').finish();
}

std::string EntityTree::json() const {
    std::string text;
    context_.interruption.change([&] {
        Path path{0};
        text = json(path);
    });
    return text;
}
