#include "commands.hpp"
#include "documents.hpp"

#include <algorithm>
#include <map>
#include <set>

using mqtt::Topic;

namespace {

constexpr auto QUIET = std::chrono::milliseconds(300);
/// The levels of the documents below an entity's topic; links are on the topic itself.
constexpr char const* IDENTIFICATION = "/identification";
constexpr char const* STATES[] = {"/communication", "/status"};

/// What a device consists of: its base topic, the entities that this links to, and what these link
/// to. Follows all changes.
class EntityTree final : private mqtt::MqttClient::Subscriber {
public:
    EntityTree(Context& context, mqtt::MqttClient& client)
        : interruption_(context.interruption),
          console_(context.console),
          client_(client),
          base_(Topic(context.settings.topic).text()) {
        follow(base_);
    }
    ~EntityTree() override { client_.release(this); }
    EntityTree(EntityTree const&) = delete;
    EntityTree& operator=(EntityTree const&) = delete;

    /// Waits until the base's links and the identification of each entity have arrived, and then
    /// until nothing more arrives.
    bool waitUntilComplete(Clock::time_point deadline) {
        bool const complete = interruption_.wait(deadline, [this] { return isComplete(); });
        waitForQuiet(deadline);
        return complete;
    }
    /// Waits for a change, and then until nothing more arrives.
    void waitForChange() {
        interruption_.wait(Clock::time_point::max(), [this] { return changes_ != shown_; });
        waitForQuiet(Clock::now() + 3 * QUIET);
    }

    bool isEmpty() {
        bool empty = true;
        interruption_.change([&] { empty = documents_.empty(); });
        return empty;
    }
    /// One entity on each line.
    std::string text() {
        std::string lines;
        interruption_.change([&] {
            lines = title(base_);
            std::vector<std::string> path{base_};
            addLines(lines, path, "\n");
        });
        return lines;
    }
    JsonLine& addTo(JsonLine& line) {
        interruption_.change([&] {
            std::vector<std::string> path{base_};
            addMembers(line, path);
        });
        return line;
    }

private:
    using Path = std::vector<std::string>; ///< from the base: an entity may link to one above it

    void onMqttMessage(int /*tag*/, Topic const& topic, std::string const& payload) override {
        std::vector<mqtt::Link> links;
        interruption_.change([&] {
            documents_[topic.text()] = payload;
            ++changes_;
            if (entities_.count(topic.text()) == 1) {
                links = linksOf(topic.text());
            }
        });
        for (auto const& link : links) {
            follow(link.id);
        }
    }

    /// Without the lock. A link that is no topic cannot be subscribed to, and stays without
    /// documents.
    void follow(std::string const& topic) {
        bool isNew = false;
        interruption_.change([&] { isNew = entities_.insert(topic).second; });
        if (isNew) {
            for (auto const* level : {"", IDENTIFICATION, STATES[0], STATES[1]}) {
                static_cast<void>(client_.subscribe(topic + level, this, 0));
            }
        }
    }

    void waitForQuiet(Clock::time_point deadline) {
        auto const changed = [this] { return changes_ != shown_; };
        do {
            interruption_.change([this] { shown_ = changes_; });
        } while (interruption_.wait(std::min(deadline, Clock::now() + QUIET), changed)
                 && Clock::now() < deadline);
    }

    // All below with the lock.

    std::string document(std::string const& topic) const {
        auto const found = documents_.find(topic);
        return found == documents_.end() ? "" : found->second;
    }

    bool isComplete() const {
        return !document(base_).empty()
               && std::all_of(entities_.begin(), entities_.end(), [this](std::string const& topic) {
                      return topic == base_ || !document(topic + IDENTIFICATION).empty();
                  });
    }

    std::string title(std::string const& topic) const {
        using Colour = Console::Colour;
        auto identification = readIdentification(document(topic + IDENTIFICATION));
        auto const name = identification.empty() ? "" : identification.front();
        auto text = console_.paint(Colour::BLUE, printable(name.empty() ? topic : name));
        if (!name.empty()) {
            identification.front() = topic;
        }
        for (auto const& part : identification) {
            text += part.empty() ? "" : "  " + printable(part);
        }
        if (document(topic + IDENTIFICATION).empty() && topic != base_) {
            text += "  " + console_.paint(Colour::RED, "no identification");
        }
        for (auto const* level : STATES) {
            if (auto const state = document(topic + level); !state.empty()) {
                text += "  " + console_.paint(Colour::GREEN, describe(topic + level, state));
            }
        }
        return text;
    }

    std::vector<mqtt::Link> linksOf(std::string const& topic) const {
        return readLinks(document(topic)).value_or(std::vector<mqtt::Link>());
    }

    /// @param indent begins each line, with the end of the line before
    void addLines(std::string& lines, Path& path, std::string const& indent) const {
        auto const linked = linksOf(path.back());
        for (std::size_t i = 0; i < linked.size(); ++i) {
            bool const isLast = i + 1 == linked.size();
            auto const& topic = linked[i].id;
            lines += indent + (isLast ? "`-- " : "|-- ") + title(topic);
            if (std::find(path.begin(), path.end(), topic) == path.end()) {
                path.push_back(topic);
                addLines(lines, path, indent + (isLast ? "    " : "|   "));
                path.pop_back();
            }
        }
    }

    void addMembers(JsonLine& line, Path& path) const {
        auto const topic = path.back();
        line.text("topic", topic);
        for (auto const* level : {IDENTIFICATION, STATES[0], STATES[1]}) {
            if (auto const found = document(topic + level); isJsonObject(found)) {
                line.raw(level + 1, found);
            }
        }
        std::string entities;
        for (auto const& link : linksOf(topic)) {
            if (std::find(path.begin(), path.end(), link.id) == path.end()) {
                JsonLine entity;
                path.push_back(link.id);
                addMembers(entity, path);
                path.pop_back();
                entities += (entities.empty() ? "" : ",") + entity.finish();
            }
        }
        line.raw("entities", '[' + entities + ']');
    }

    Interruption& interruption_; ///< its lock guards all below
    Console const& console_;
    mqtt::MqttClient& client_;
    std::string const base_;
    std::set<std::string> entities_; ///< their topics, also of those not linked any more
    std::map<std::string, std::string> documents_; ///< by their topics
    unsigned changes_ = 0;
    unsigned shown_ = 0;
};

} // namespace

ExitCode runTree(Context& context) {
    auto const& settings = context.settings;
    auto& console = context.console;
    auto const stopped = [&] { return context.interruption.requested(); };
    Connection connection(context);
    EntityTree tree(context, connection.client);
    auto const show = [&] {
        JsonLine line;
        auto const* const erase = settings.watch && console.isTerminal() ? "\033[H\033[2J" : "";
        console.report(tree.addTo(line), erase + tree.text());
    };
    bool const complete = tree.waitUntilComplete(settings.deadline());
    show();
    while (settings.watch && !stopped()) {
        tree.waitForChange();
        if (!stopped()) {
            show();
        }
    }
    if (stopped()) {
        return settings.watch ? ExitCode::DONE : ExitCode::INTERRUPTED;
    }
    if (!complete) {
        throw CommandFailed(ExitCode::NO_ANSWER, tree.isEmpty()
                                                     ? "nothing is published on " + settings.topic
                                                     : "links or identifications are missing");
    }
    return ExitCode::DONE;
}
