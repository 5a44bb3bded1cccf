#include "arguments.hpp"
#include "documents.hpp"

namespace {

class Clear final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(topic_, "TOPIC", "whose value the broker forgets");
    }

    ExitCode run(Context& context) override {
        Connection connection(context);
        constexpr int QOS = 2;
        // MqttClient::clear does not wait, and the end of the connection could interrupt it.
        require(connection.client.publishWait(topic_, "", QOS, true, context.settings.timeout),
                "cannot clear " + topic_);
        if (context.console.json()) {
            context.console.print(
                JsonLine().text("topic", topic_).boolean("cleared", true).finish());
        }
        return ExitCode::DONE;
    }

    std::string topic_;
};

} // namespace

std::unique_ptr<Command> makeClear() {
    return std::make_unique<Clear>();
}
