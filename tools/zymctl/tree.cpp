// The command tree.

#include "commands.hpp"
#include "documents.hpp"

#include <algorithm>
#include <map>
#include <set>

namespace {

/// Of the documents below an entity's topic; links are on the topic itself.
constexpr char const* LEVELS[] = {"/identification", "/communication", "/status"};

/// What a device consists of: its base topic, the entities that this links to, and what these link
/// to.
class EntityTree {
public:
    EntityTree(Console const& console, Connection& connection, mqtt::Topic const& base)
        : console_(console), connection_(connection), base_(base.text()) {
        follow(base_);
    }

    void add(Message const& message) {
        auto const& topic = message.topic.text();
        documents_[topic] = message.payload;
        if (entities_.count(topic) == 1) {
            for (auto const& link : readLinks(document(topic))) {
                follow(link.id);
            }
        }
    }

    bool isEmpty() const { return documents_.empty(); }
    /// Whether the base's links and the identification of each entity are known.
    bool isComplete() const {
        return !document(base_).empty()
               && std::all_of(entities_.begin(), entities_.end(), [this](std::string const& topic) {
                      return topic == base_ || !document(topic + LEVELS[0]).empty();
                  });
    }

    /// One entity on each line.
    std::string text() const {
        Path path{base_};
        auto lines = title(base_);
        addLines(lines, path, "\n");
        return lines;
    }
    JsonLine& addTo(JsonLine& line) const {
        Path path{base_};
        addMembers(line, path);
        return line;
    }

private:
    using Path = std::vector<std::string>; ///< from the base: an entity may link to one above it

    /// A link that is no topic cannot be subscribed to, and stays without documents.
    void follow(std::string const& topic) try {
        if (entities_.insert(topic).second) {
            for (auto const* level : {"", LEVELS[0], LEVELS[1], LEVELS[2]}) {
                connection_.subscribe(topic + level);
            }
        }
    } catch (CommandFailed const&) {
        return;
    }

    std::string document(std::string const& topic) const {
        auto const found = documents_.find(topic);
        return found == documents_.end() ? "" : found->second;
    }

    std::string title(std::string const& topic) const {
        using Colour = Console::Colour;
        auto text = console_.paint(Colour::BLUE, printable(topic));
        if (document(topic + LEVELS[0]).empty() && topic != base_) {
            text += "  " + console_.paint(Colour::RED, "no identification");
        }
        for (auto const* level : LEVELS) {
            if (auto const found = document(topic + level); !found.empty()) {
                text += "  " + console_.paint(Colour::GREEN, describe(topic + level, found));
            }
        }
        return text;
    }

    /// @param indent begins each line, with the end of the line before
    void addLines(std::string& lines, Path& path, std::string const& indent) const {
        auto const linked = readLinks(document(path.back()));
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
        line.add("topic", topic);
        for (auto const* level : LEVELS) {
            if (auto const found = document(topic + level); isJsonObject(found)) {
                line.addRaw(level + 1, found);
            }
        }
        std::string entities;
        for (auto const& link : readLinks(document(topic))) {
            if (std::find(path.begin(), path.end(), link.id) == path.end()) {
                JsonLine entity;
                path.push_back(link.id);
                addMembers(entity, path);
                path.pop_back();
                entities += (entities.empty() ? "" : ",") + entity.finish();
            }
        }
        line.addRaw("entities", '[' + entities + ']');
    }

    Console const& console_;
    Connection& connection_;
    std::string const base_;
    std::set<std::string> entities_; ///< their topics, also of those not linked any more
    std::map<std::string, std::string> documents_; ///< by their topics
};

} // namespace

ExitCode runTree(Context& context) {
    constexpr auto QUIET = std::chrono::milliseconds(300);
    auto const& settings = context.settings;
    auto& console = context.console;
    auto const stopped = [&] { return context.interruption.requested(); };
    Connection connection(context);
    EntityTree tree(console, connection, settings.topic);
    auto const addOne = [&](Message const& message) {
        tree.add(message);
        return true;
    };
    auto const readUntilQuiet = [&](Clock::time_point deadline) {
        bool more = true;
        while (more && Clock::now() < deadline) {
            more = connection.read(std::min(deadline, Clock::now() + QUIET), addOne);
        }
    };
    auto const show = [&] {
        JsonLine line;
        auto const* const erase = settings.watch && console.isTerminal() ? "\033[H\033[2J" : "";
        console.report(std::move(tree.addTo(line)), erase + tree.text());
    };
    auto const deadline = settings.deadline();
    bool const complete = connection.read(deadline, [&](Message const& message) {
        tree.add(message);
        return tree.isComplete();
    });
    readUntilQuiet(deadline);
    show();
    while (settings.watch && connection.read(Clock::time_point::max(), addOne)) {
        readUntilQuiet(Clock::now() + 3 * QUIET);
        show();
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
