// The commands for single topics: watch, get, set, clear, clean, check.

#include "commands.hpp"
#include "documents.hpp"
#include "plain_client.hpp"

#include <mqtt/test_checks.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <iostream>
#include <iterator>
#include <set>
#include <streambuf>

using mqtt::Topic;

namespace {

double seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

void printMessage(Console& console, PlainClient::Message const& message) {
    bool const cleared = message.payload.empty();
    auto const mark = cleared ? "[cleared] " : message.retained ? "[retained] " : "";
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    auto const ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    auto const time = static_cast<double>(ms) / 1000;
    console.report(JsonLine()
                       .number("time", time)
                       .text("topic", message.topic)
                       .number("qos", message.qos)
                       .boolean("retained", message.retained)
                       .boolean("cleared", cleared)
                       .payload(message.payload),
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

bool checkCollection(Context& context) {
    auto const& topic = context.settings.topic;
    std::vector<zym::common::Uuid> ids;
    for (auto const& value : context.settings.expected) {
        ids.push_back(identifier(value));
    }
    Connection connection(context);
    mqtt::MqttDataCollection<mqtt::Link> links(connection.client, topic);
    bool arrived = false;
    TopicReader const reader(connection.client, topic,
                             [&](Topic const&, std::string const& payload) {
                                 auto const read = readLinks(payload);
                                 context.interruption.change([&] {
                                     arrived = arrived || (read && !payload.empty());
                                     links.value = read.value_or(links.value);
                                 });
                             });
    bool const passed = context.interruption.wait(context.settings.deadline(), [&] {
        return arrived && mqtt::checkCollectionPublished(ids, links);
    });
    if (!context.console.json()) {
        context.console.print(
            topic + (passed ? " links to exactly these" : " does not link to exactly these"));
    }
    return passed;
}

/// Takes what is printed, on any thread, and drops it.
class NoOutput final : public std::streambuf {
    int_type overflow(int_type character) override { return traits_type::not_eof(character); }
    std::streamsize xsputn(char const* /*text*/, std::streamsize size) override { return size; }
};

/// The library's checks print their result; nothing of that belongs between JSON.
bool checkWithLibrary(Context& context) {
    { // Without a broker they would not say so.
        Connection const connection(context);
    }
    auto const& settings = context.settings;
    NoOutput none;
    auto* const output = std::cout.rdbuf();
    if (settings.json) {
        std::cout.rdbuf(&none);
    }
    mqtt::TestCounter counter;
    bool passed = true;
    try {
        if (settings.kindOfCheck == "clean") {
            mqtt::testTopicClean(settings.topic, counter, settings.address(), settings.portNumber(),
                                 settings.connectionOptions());
        } else {
            auto const& link = settings.expected.front();
            auto const message = "Check that " + settings.topic + " links to " + link;
            mqtt::testLinkInCollection(link, settings.topic, message.c_str(), counter,
                                       settings.address(), settings.portNumber(),
                                       settings.connectionOptions());
        }
    } catch (mqtt::test_error const&) {
        passed = false;
    }
    std::cout.rdbuf(output);
    return passed;
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
    if (!client.connect() || client.subscribe(settings.topic, EVERY_QOS) < 0) {
        throw CommandFailed(ExitCode::FAILED,
                            "the broker refuses the subscription to " + settings.topic);
    }
    unsigned messages = 0;
    auto const rate = [&] {
        auto const passed = seconds(Clock::now() - start);
        return std::to_string(messages) + " messages in " + fixed(passed, 1) + " s, "
               + fixed(messages / passed, 1) + " per second";
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
    auto const passed = seconds(Clock::now() - start);
    context.console.reportJson(JsonLine()
                                   .number("messages", messages)
                                   .number("seconds", passed)
                                   .number("rate", messages / passed));
    if (!settings.json) {
        context.console.note(rate());
    }
    if (!ended && !client.isConnected() && !context.interruption.requested()) {
        throw CommandFailed(ExitCode::NO_CONNECTION, "the connection is lost");
    }
    return ExitCode::DONE;
}

ExitCode runGet(Context& context) {
    auto const& topic = context.settings.topic;
    Connection connection(context);
    Awaited<std::string> first(context.interruption);
    TopicReader const reader(
        connection.client, topic,
        [&](Topic const&, std::string const& payload) { first.give(payload); });
    auto const& value = first.wait(context.settings.deadline());
    if (!value) {
        throw CommandFailed(context.interruptedOr(ExitCode::NO_ANSWER),
                            "no value of " + topic + " has arrived");
    }
    // A program gets every byte as it is.
    context.console.report(JsonLine().text("topic", topic).payload(*value),
                           context.console.isTerminal() ? printable(*value) : *value);
    return ExitCode::DONE;
}

ExitCode runSet(Context& context) {
    auto const& settings = context.settings;
    auto value = settings.value;
    if (value == "-") {
        value.assign(std::istreambuf_iterator<char>(std::cin), {});
    }
    publish(context, value, settings.qos, !settings.notRetained);
    context.console.reportJson(JsonLine()
                                   .text("topic", settings.topic)
                                   .number("bytes", static_cast<double>(value.size()))
                                   .number("qos", settings.qos)
                                   .boolean("retained", !settings.notRetained));
    return ExitCode::DONE;
}

ExitCode runClear(Context& context) {
    constexpr unsigned QOS = 2;
    // MqttClient::clear does not wait, and the end of the connection could interrupt it.
    publish(context, "", QOS, true);
    context.console.reportJson(
        JsonLine().text("topic", context.settings.topic).boolean("cleared", true));
    return ExitCode::DONE;
}

ExitCode runClean(Context& context) {
    auto const& settings = context.settings;
    auto& interruption = context.interruption;
    std::set<std::string> erased;
    std::set<std::string> left;
    Connection connection(context);
    // Over another connection than the cleaner's: which values there are, and which are erased.
    TopicReader const reader(connection.client, settings.topic,
                             [&](Topic const& topic, std::string const& payload) {
                                 std::string progress;
                                 interruption.change([&] {
                                     (payload.empty() ? erased : left).insert(topic.text());
                                     (payload.empty() ? left : erased).erase(topic.text());
                                     progress = "erased " + std::to_string(erased.size())
                                                + ", left " + std::to_string(left.size());
                                 });
                                 context.console.progress(progress);
                             });
    mqtt::TopicCleaner cleaner(nullptr, randomIdentifier(), settings.address(),
                               settings.portNumber(), settings.connectionOptions());
    cleaner.clean(settings.topic, std::chrono::seconds(settings.cleanSeconds));
    constexpr auto STEP = std::chrono::milliseconds(100);
    bool ended = false;
    while (!ended && !interruption.requested()) {
        ended = cleaner.waitAllTasks(STEP);
    }
    bool const clean = interruption.wait(settings.deadline(), [&] { return left.empty(); });
    cleaner.terminate();
    interruption.change([&] {
        context.console.report(JsonLine()
                                   .text("pattern", settings.topic)
                                   .number("erased", static_cast<double>(erased.size()))
                                   .number("left", static_cast<double>(left.size())),
                               "erased " + std::to_string(erased.size()) + " values of "
                                   + settings.topic + ", " + std::to_string(left.size()) + " left");
    });
    return !ended ? ExitCode::INTERRUPTED : clean ? ExitCode::DONE : ExitCode::FAILED;
}

ExitCode runCheck(Context& context) {
    auto const& kind = context.settings.kindOfCheck;
    auto const count = context.settings.expected.size();
    bool const isCollection = kind == "collection";
    if (!isCollection && !(kind == "link" && count == 1) && !(kind == "clean" && count == 0)) {
        throw CommandFailed(ExitCode::USAGE, "check collection TOPIC ID..., check link TOPIC LINK, "
                                             "or check clean TOPIC");
    }
    bool const passed = isCollection ? checkCollection(context) : checkWithLibrary(context);
    context.console.reportJson(JsonLine()
                                   .text("check", kind)
                                   .text("topic", context.settings.topic)
                                   .boolean("passed", passed));
    return passed ? ExitCode::DONE : context.interruptedOr(ExitCode::FAILED);
}
