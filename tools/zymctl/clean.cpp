#include "arguments.hpp"
#include "documents.hpp"
#include "raw_payload.hpp"

#include <mqtt/topic_cleaner.hpp>

#include <set>

namespace {

/// Sees over another connection than the cleaner's which values there are, and which are erased.
class Count {
public:
    Count(Context& context, mqtt::MqttClient& client, mqtt::Topic const& pattern)
        : context_(context),
          reader_(client, pattern, [this](mqtt::Topic const& topic, std::string const& payload) {
              note(topic.text(), payload.empty());
          }) {}

    /// Waits until no value is left.
    bool waitForRest(Clock::time_point deadline) {
        return context_.interruption.wait(deadline, [this] { return left_.empty(); });
    }
    std::size_t erased() const { return erased_.size(); } ///< call it after `waitForRest`
    std::size_t left() const { return left_.size(); }

private:
    void note(std::string const& topic, bool isErased) {
        std::string progress;
        context_.interruption.change([&] {
            (isErased ? erased_ : left_).insert(topic);
            (isErased ? left_ : erased_).erase(topic);
            progress = "erased " + std::to_string(erased_.size()) + ", left "
                       + std::to_string(left_.size());
        });
        context_.console.progress(progress);
    }

    Context& context_;
    std::set<std::string> erased_;
    std::set<std::string> left_;
    TopicReader const reader_;
};

class EndOfCleaning final : public mqtt::TopicCleaner::Listener, public Awaited<bool> {
public:
    using Awaited::Awaited;

private:
    void onTopicCleaned(mqtt::Topic const& /*topic*/) override {}
    void onAllTopicsCleaned() override { give(true); }
};

class Clean final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(pattern_, "PATTERN", "a topic, or a pattern with + and #");
        arguments.option(seconds_, "--for", "SECONDS", "how long to wait for retained values");
    }

    ExitCode run(Context& context) override {
        auto const& settings = context.settings;
        Connection connection(context);
        Count count(context, connection.client, pattern_);
        EndOfCleaning end(context.interruption);
        mqtt::TopicCleaner cleaner(&end, randomIdentifier(), settings.address(),
                                   settings.portNumber(), settings.connectionOptions());
        cleaner.clean(pattern_, std::chrono::seconds(seconds_));
        bool const ended = end.wait(Clock::time_point::max()).has_value();
        bool const clean = count.waitForRest(settings.deadline());
        cleaner.terminate();
        report(context.console, count.erased(), count.left());
        return !ended ? ExitCode::INTERRUPTED : clean ? ExitCode::DONE : ExitCode::FAILED;
    }

    void report(Console& console, std::size_t erased, std::size_t left) const {
        console.print(console.json() ? JsonLine()
                                           .text("pattern", pattern_)
                                           .number("erased", static_cast<double>(erased))
                                           .number("left", static_cast<double>(left))
                                           .finish()
                                     : "erased " + std::to_string(erased) + " values of " + pattern_
                                           + ", " + std::to_string(left) + " left");
    }

    std::string pattern_;
    unsigned seconds_ = 1;
};

} // namespace

std::unique_ptr<Command> makeClean() {
    return std::make_unique<Clean>();
}
