#include "arguments.hpp"
#include "documents.hpp"

#include <mqtt/test_checks.hpp>

#include <iostream>
#include <sstream>

namespace {

/// Wakes the waiting thread with each list of links.
class FirstLinks final : public mqtt::MqttData<std::vector<mqtt::Link>>::Subscriber {
public:
    explicit FirstLinks(Interruption& interruption) : interruption_(interruption) {}
    bool arrived() const { return arrived_; }

private:
    void onMqttData(std::vector<mqtt::Link> const& /*links*/, bool empty, int /*id*/) override {
        interruption_.change([&] { arrived_ = arrived_ || !empty; });
    }

    Interruption& interruption_;
    bool arrived_ = false;
};

class Check final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(kind_, "collection|link|clean",
                           "TOPIC links to exactly the entities ID...; TOPIC has LINK; nothing is "
                           "retained on TOPIC");
        arguments.required(topic_, "TOPIC", "a topic; for clean also a pattern");
        arguments.more(values_, "ID|LINK", "what is expected there");
    }

    ExitCode run(Context& context) override {
        bool const isCollection = kind_ == "collection";
        if (!isCollection && !(kind_ == "link" && values_.size() == 1)
            && !(kind_ == "clean" && values_.empty())) {
            throw CommandFailed(ExitCode::USAGE,
                                "check collection TOPIC ID..., check link TOPIC LINK, or "
                                "check clean TOPIC");
        }
        bool const passed = isCollection ? checkCollection(context) : checkWithLibrary(context);
        if (context.console.json()) {
            context.console.print(JsonLine()
                                      .text("check", kind_)
                                      .text("topic", topic_)
                                      .boolean("passed", passed)
                                      .finish());
        }
        return passed                             ? ExitCode::DONE
               : context.interruption.requested() ? ExitCode::INTERRUPTED
                                                  : ExitCode::FAILED;
    }

    bool checkCollection(Context& context) const {
        std::vector<zym::common::Uuid> ids;
        for (auto const& value : values_) {
            ids.push_back(identifier(value));
        }
        Connection connection(context);
        FirstLinks first(context.interruption);
        mqtt::MqttDataCollection<mqtt::Link> links(connection.client, topic_);
        links.subscribe(&first, 0);
        bool const passed = context.interruption.wait(context.settings.deadline(), [&] {
            return first.arrived() && mqtt::checkCollectionPublished(ids, links);
        });
        if (!context.console.json()) {
            context.console.print(
                topic_ + (passed ? " links to exactly these" : " does not link to exactly these"));
        }
        return passed;
    }

    /// The library's checks print their result; nothing of that belongs between JSON.
    bool checkWithLibrary(Context& context) const {
        { // Without a broker they would not say so.
            Connection const connection(context);
        }
        std::ostringstream unused;
        auto* const output = std::cout.rdbuf();
        if (context.console.json()) {
            std::cout.rdbuf(unused.rdbuf());
        }
        bool const passed = passes(context.settings);
        std::cout.rdbuf(output);
        return passed;
    }

    bool passes(Settings const& settings) const {
        mqtt::TestCounter counter;
        try {
            if (kind_ == "clean") {
                mqtt::testTopicClean(topic_, counter, settings.address(), settings.portNumber(),
                                     settings.connectionOptions());
            } else {
                auto const message = "Check that " + topic_ + " links to " + values_.front();
                mqtt::testLinkInCollection(values_.front(), topic_, message.c_str(), counter,
                                           settings.address(), settings.portNumber(),
                                           settings.connectionOptions());
            }
            return true;
        } catch (mqtt::test_error const&) {
            return false;
        }
    }

    std::string kind_;
    std::string topic_;
    std::vector<std::string> values_;
};

} // namespace

std::unique_ptr<Command> makeCheck() {
    return std::make_unique<Check>();
}
