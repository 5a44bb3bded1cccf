// The commands for single topics: watch, get, set, clear, clean, check.

#include "commands.hpp"
#include "documents.hpp"
#include "plain_client.hpp"

#include <mqtt/test_checks.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <set>

namespace {

void printMessage(Console& console, PlainClient::Message const& message) {
    bool const cleared = message.payload.empty();
    auto const mark = cleared ? "[cleared] " : message.retained ? "[retained] " : "";
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    auto const ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    auto const time = static_cast<double>(ms) / 1000;
    JsonLine line("time", time, "topic", message.topic, "qos", message.qos, "retained",
                  message.retained, "cleared", cleared);
    console.report(std::move(line.addPayload(message.payload)),
                   timeText(time, "%T.") + std::to_string(1000 + ms % 1000).substr(1) + ' '
                       + console.paint(Console::Colour::BLUE, printable(message.topic)) + ' '
                       + console.paint(Console::Colour::YELLOW, mark)
                       + describe(message.topic, message.payload));
}

void publish(Context& context, std::string const& value, unsigned qos, bool retain) {
    auto const& topic = context.settings.topic;
    Connection connection(context);
    require(connection.client.publishWait(topic, value, static_cast<int>(qos), retain,
                                          context.settings.timeout),
            "cannot publish on " + topic);
}

/// Whether nothing is retained on the topic or pattern.
bool isClean(Context& context) {
    constexpr auto LONG_ENOUGH = std::chrono::milliseconds(500);
    Connection connection(context);
    connection.subscribe(context.settings.topic);
    return !connection.read(Clock::now() + LONG_ENOUGH, [](Message const&) { return true; })
           && !context.interruption.requested();
}

/// Whether the topic links to what is expected within the time: exactly to these entities, or to
/// this one beside others.
bool isLinked(Context& context, bool isCollection) {
    auto const& settings = context.settings;
    std::vector<zym::common::Uuid> ids;
    if (isCollection) {
        std::transform(settings.expected.begin(), settings.expected.end(), std::back_inserter(ids),
                       identifier);
    }
    Connection connection(context);
    mqtt::MqttDataCollection<mqtt::Link> links(connection.client, settings.topic);
    connection.subscribe(settings.topic);
    return connection.read(settings.deadline(), [&](Message const& message) {
        links.value = readLinks(message.payload);
        return isCollection ? mqtt::checkCollectionPublished(ids, links)
                            : mqtt::isLinkPublishedInCollection(settings.expected.front(), links);
    });
}

} // namespace

ExitCode runWatch(Context& context) {
    { // Says why there is no connection.
        Connection const connection(context);
    }
    auto const& settings = context.settings;
    constexpr int EVERY_QOS = 2;
    auto const start = Clock::now();
    auto const end = settings.end();
    PlainClient client(context);
    client.subscribe(settings.topic, EVERY_QOS);
    unsigned messages = 0;
    double seconds = 0;
    auto const rate = [&] {
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return std::to_string(messages) + " messages in " + fixed(seconds, 1) + " s, "
               + fixed(messages / seconds, 1) + " per second";
    };
    bool const ended = client.wait(end, [&] {
        while (!client.messages.empty() && (settings.count == 0 || messages < settings.count)) {
            ++messages;
            printMessage(context.console, client.messages.front());
            client.messages.pop_front();
            context.console.progress(rate());
        }
        return settings.count != 0 && messages == settings.count;
    });
    auto const text = rate();
    context.console.reportJson(
        JsonLine("messages", messages, "seconds", seconds, "rate", messages / seconds));
    if (!settings.json) {
        context.console.note(text);
    }
    if (!ended && !client.isConnected() && !context.interruption.requested()) {
        throw CommandFailed(ExitCode::NO_CONNECTION, "the connection is lost");
    }
    return ExitCode::DONE;
}

ExitCode runGet(Context& context) {
    auto const& topic = context.settings.topic;
    Connection connection(context);
    connection.subscribe(topic);
    std::string value;
    bool const arrived = connection.read(context.settings.deadline(), [&](Message const& message) {
        value = message.payload;
        return true;
    });
    if (!arrived) {
        throw CommandFailed(context.interruptedOr(ExitCode::NO_ANSWER),
                            "no value of " + topic + " has arrived");
    }
    // A program gets every byte as it is.
    context.console.report(std::move(JsonLine("topic", topic).addPayload(value)),
                           context.console.isTerminal() ? printable(value) : value);
    return ExitCode::DONE;
}

ExitCode runSet(Context& context) {
    auto const& settings = context.settings;
    auto value = settings.value;
    if (value == "-") {
        value.assign(std::istreambuf_iterator<char>(std::cin), {});
    }
    publish(context, value, settings.qos, !settings.notRetained);
    context.console.reportJson(JsonLine("topic", settings.topic, "bytes", value.size(), "qos",
                                        settings.qos, "retained", !settings.notRetained));
    return ExitCode::DONE;
}

ExitCode runClear(Context& context) {
    constexpr unsigned QOS = 2;
    // MqttClient::clear does not wait, and the end of the connection could interrupt it.
    publish(context, "", QOS, true);
    context.console.reportJson(JsonLine("topic", context.settings.topic, "cleared", true));
    return ExitCode::DONE;
}

ExitCode runClean(Context& context) {
    auto const& settings = context.settings;
    std::set<std::string> erased;
    std::set<std::string> left;
    // Over another connection than the cleaner's: which values there are, and which are erased.
    Connection connection(context);
    connection.subscribe(settings.topic);
    auto const count = [&](Message const& message) {
        bool const isErased = message.payload.empty();
        (isErased ? erased : left).insert(message.topic.text());
        (isErased ? left : erased).erase(message.topic.text());
        context.console.progress("erased " + std::to_string(erased.size()) + ", left "
                                 + std::to_string(left.size()));
        return false;
    };
    mqtt::TopicCleaner cleaner(nullptr, randomIdentifier(), settings.address(),
                               settings.portNumber(), settings.connectionOptions());
    cleaner.clean(settings.topic, std::chrono::seconds(settings.cleanSeconds));
    constexpr auto STEP = std::chrono::milliseconds(100);
    bool ended = false;
    while (!ended && !context.interruption.requested()) {
        ended = cleaner.waitAllTasks(STEP);
        connection.read(Clock::now(), count);
    }
    auto const isLastErased = [&](Message const& message) {
        count(message);
        return left.empty();
    };
    bool const clean = left.empty() || connection.read(settings.deadline(), isLastErased);
    cleaner.terminate();
    context.console.report(
        JsonLine("pattern", settings.topic, "erased", erased.size(), "left", left.size()),
        "erased " + std::to_string(erased.size()) + " values of " + settings.topic + ", "
            + std::to_string(left.size()) + " left");
    return !ended ? ExitCode::INTERRUPTED : clean ? ExitCode::DONE : ExitCode::FAILED;
}

ExitCode runCheck(Context& context) {
    auto const& settings = context.settings;
    auto const& kind = settings.kindOfCheck;
    auto const count = settings.expected.size();
    bool const isCollection = kind == "collection";
    bool const isLink = kind == "link" && count == 1;
    if (!isCollection && !isLink && !(kind == "clean" && count == 0)) {
        throw CommandFailed(ExitCode::USAGE, "check collection TOPIC ID..., check link TOPIC LINK, "
                                             "or check clean TOPIC");
    }
    bool const passed = isCollection || isLink ? isLinked(context, isCollection) : isClean(context);
    context.console.report(JsonLine("check", kind, "topic", settings.topic, "passed", passed),
                           "check " + kind + ' ' + settings.topic
                               + (passed ? ": passed" : ": failed"));
    return passed ? ExitCode::DONE : context.interruptedOr(ExitCode::FAILED);
}
