#include "arguments.hpp"
#include "documents.hpp"

#include <iostream>
#include <iterator>

namespace {

class Set final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(topic_, "TOPIC", "where to publish it");
        arguments.required(value_, "VALUE", "any text; - for what the standard input has");
        arguments.option(qos_, "--qos", "0|1|2", "quality of service");
        arguments.flag(notRetained_, "--no-retain", "the broker does not keep the value");
    }

    ExitCode run(Context& context) override {
        if (value_ == "-") {
            value_.assign(std::istreambuf_iterator<char>(std::cin), {});
        }
        Connection connection(context);
        require(connection.client.publishWait(topic_, value_, static_cast<int>(qos_), !notRetained_,
                                              context.settings.timeout),
                "cannot publish " + topic_);
        if (context.console.json()) {
            context.console.print(JsonLine()
                                      .text("topic", topic_)
                                      .number("bytes", static_cast<double>(value_.size()))
                                      .number("qos", qos_)
                                      .boolean("retained", !notRetained_)
                                      .finish());
        }
        return ExitCode::DONE;
    }

    std::string topic_;
    std::string value_;
    unsigned qos_ = 2;
    bool notRetained_ = false;
};

} // namespace

std::unique_ptr<Command> makeSet() {
    return std::make_unique<Set>();
}
