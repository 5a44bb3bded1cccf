#include "arguments.hpp"
#include "documents.hpp"
#include "raw_payload.hpp"

#include <mqtt/request_reply.hpp>

#include <atomic>
#include <cstdint>
#include <utility>

namespace {

using mqtt::RequestReply;
using mqtt::RequestReplyData;
using zym::common::Uuid;

/// Gives every request the same answer.
class FixedAnswer final : public mqtt::RequestReplyServer::Listener {
public:
    FixedAnswer(std::shared_ptr<RequestReplyData> document, unsigned code)
        : document_(std::move(document)), code_(static_cast<RequestReply::ErrorCode>(code)) {}
    unsigned count() const { return count_; }

private:
    std::shared_ptr<RequestReplyData> onRequest(std::string const& /*name*/, Uuid const& /*client*/,
                                                Uuid const& /*server*/,
                                                RequestReplyData const& /*data*/,
                                                RequestReply::ErrorCode& error) override {
        error = code_;
        ++count_;
        return document_;
    }

    std::shared_ptr<RequestReplyData> const document_;
    RequestReply::ErrorCode const code_;
    std::atomic<unsigned> count_{0};
};

class Serve final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(base_, "BASE", "the topic that all topics of the service begin with");
        arguments.required(service_, "SERVICE", "its name");
        arguments.optional(json_, "JSON", "the payload of each reply, an object");
        arguments.option(server_, "--server", "ID", "whose requests to answer");
        arguments.option(subPath_, "--sub-path", "TOPIC", "levels between server and service");
        arguments.option(code_, "--error", "CODE",
                         "of each reply: 1 is success, 16 and above refuse");
    }

    ExitCode run(Context& context) override {
        if (code_ > UINT8_MAX) {
            throw CommandFailed(ExitCode::USAGE, "a code is 0 to 255");
        }
        FixedAnswer answer(std::make_shared<RawPayload>(json_), code_);
        auto const server = identifier(server_);
        Connection connection(context);
        mqtt::RequestReplyServer requests(connection.client, base_, subPath_, service_);
        require(requests.subscribe(&answer, server, std::make_shared<RawPayload>("")),
                "cannot serve");
        {
            TopicReader const reader(connection.client, requests.requestTopic() + "+",
                                     [&](mqtt::Topic const& topic, std::string const& payload) {
                                         context.console.print(context.console.json()
                                                                   ? jsonOf(topic, payload)
                                                                   : topic[topic.size() - 1] + ' '
                                                                         + printable(payload));
                                     });
            context.console.note("serving " + requests.requestTopic().text()
                                 + ", ends with Ctrl-C");
            context.interruption.pause(Clock::time_point::max());
        }
        requests.release();
        context.console.note("answered " + std::to_string(answer.count()) + " requests");
        return ExitCode::DONE;
    }

    static std::string jsonOf(mqtt::Topic const& topic, std::string const& payload) {
        JsonLine line;
        line.text("topic", topic.text()).text("client", topic[topic.size() - 1]);
        addPayload(line, payload);
        return line.finish();
    }

    std::string base_;
    std::string service_;
    std::string json_;
    std::string server_;
    std::string subPath_;
    unsigned code_ = 1;
};

} // namespace

std::unique_ptr<Command> makeServe() {
    return std::make_unique<Serve>();
}
