#include "arguments.hpp"
#include "documents.hpp"
#include "plain_client.hpp"

namespace {

class Watch final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(pattern_, "PATTERN", "a topic, or a pattern with + and #");
        arguments.option(count_, "--count", "NUMBER", "end after so many messages");
        arguments.option(seconds_, "--for", "SECONDS", "end after this time; else with Ctrl-C");
    }

    ExitCode run(Context& context) override {
        { // Says why there is no connection.
            Connection const connection(context);
        }
        auto const start = Clock::now();
        PlainClient client(context);
        constexpr int EVERY_QOS = 2;
        if (!client.connect()
            || client.subscribe(pattern_, EVERY_QOS, context.settings.deadline()) < 0) {
            throw CommandFailed(ExitCode::FAILED,
                                "the broker refuses the subscription to " + pattern_);
        }
        auto const end =
            seconds_ == 0 ? Clock::time_point::max() : start + std::chrono::seconds(seconds_);
        unsigned messages = 0;
        bool const ended = client.wait(end, [&] {
            while (!client.messages.empty() && (count_ == 0 || messages < count_)) {
                ++messages;
                print(context.console, client.messages.front());
                client.messages.pop_front();
                context.console.progress(rate(messages, start));
            }
            return count_ != 0 && messages == count_;
        });
        summarise(context.console, messages, start);
        if (!ended && !client.isConnected() && !context.interruption.requested()) {
            throw CommandFailed(ExitCode::NO_CONNECTION, "the connection is lost");
        }
        return ExitCode::DONE;
    }

    static double secondsSince(Clock::time_point start) {
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

    static std::string rate(unsigned messages, Clock::time_point start) {
        auto const seconds = secondsSince(start);
        return std::to_string(messages) + " messages in " + fixed(seconds, 1) + " s, "
               + fixed(messages / seconds, 1) + " per second";
    }

    static void summarise(Console& console, unsigned messages, Clock::time_point start) {
        if (!console.json()) {
            console.note(rate(messages, start));
            return;
        }
        auto const seconds = secondsSince(start);
        console.print(JsonLine()
                          .number("messages", messages)
                          .number("seconds", seconds)
                          .number("rate", messages / seconds)
                          .finish());
    }

    static void print(Console& console, PlainClient::Message const& message) {
        bool const cleared = message.payload.empty();
        auto const now = secondsSince1970();
        if (console.json()) {
            JsonLine line;
            line.number("time", now)
                .text("topic", message.topic)
                .number("qos", message.qos)
                .boolean("retained", message.retained)
                .boolean("cleared", cleared);
            addPayload(line, message.payload);
            console.print(line.finish());
            return;
        }
        auto const mark = cleared ? "[cleared] " : message.retained ? "[retained] " : "";
        console.print(timeOfDay(now) + ' '
                      + console.paint(Console::Colour::BLUE, printable(message.topic)) + ' '
                      + console.paint(Console::Colour::YELLOW, mark)
                      + describe(message.topic, message.payload));
    }

    std::string pattern_;
    unsigned count_ = 0;
    unsigned seconds_ = 0;
};

} // namespace

std::unique_ptr<Command> makeWatch() {
    return std::make_unique<Watch>();
}
