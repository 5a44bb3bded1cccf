#include "arguments.hpp"
#include "documents.hpp"
#include "raw_payload.hpp"

namespace {

class Get final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(topic_, "TOPIC", "its retained value, or else the next one");
    }

    ExitCode run(Context& context) override {
        Connection connection(context);
        Awaited<std::string> first(context.interruption);
        TopicReader const reader(
            connection.client, topic_,
            [&](mqtt::Topic const&, std::string const& payload) { first.give(payload); });
        auto const& value = first.wait(context.settings.deadline());
        if (!value) {
            throw CommandFailed(context.interruption.requested() ? ExitCode::INTERRUPTED
                                                                 : ExitCode::NO_ANSWER,
                                "no value of " + topic_ + " has arrived");
        }
        print(context.console, *value);
        return ExitCode::DONE;
    }

    /// For a program every byte as it is.
    void print(Console& console, std::string const& value) const {
        if (!console.json()) {
            console.print(console.isTerminal() ? printable(value) : value);
            return;
        }
        JsonLine line;
        line.text("topic", topic_);
        addPayload(line, value);
        console.print(line.finish());
    }

    std::string topic_;
};

} // namespace

std::unique_ptr<Command> makeGet() {
    return std::make_unique<Get>();
}
