#include "arguments.hpp"
#include "documents.hpp"
#include "raw_payload.hpp"

#include <mqtt/request_reply.hpp>

#include <sstream>
#include <vector>

namespace {

using mqtt::RequestReply;
using zym::common::Uuid;
using zym::common::lwjson::Deserializer;

/// Waits for the end of one request, and keeps the messages on its reply topic.
class Reply final : public mqtt::RequestReplyClient::Listener {
public:
    explicit Reply(Interruption& interruption) : interruption_(interruption) {}

    void keep(std::string const& payload) {
        interruption_.change([&] { payloads_.push_back(payload); });
    }
    bool wait(Clock::time_point deadline) {
        return interruption_.wait(deadline, [this] { return ended_; });
    }
    RequestReply::ErrorCode error() const { return error_; }

    /// The reply to our request among those to others with the same client identifier.
    std::string document() const {
        for (auto const& payload : payloads_) {
            if (isJsonObject(payload)
                && Deserializer(std::string_view(payload)).getMember("$reqId")
                       == std::to_string(requestId_)) {
                return payload;
            }
        }
        return {};
    }

private:
    void onReply(unsigned requestId, std::string const& /*name*/, Uuid const& /*client*/,
                 Uuid const& /*server*/, mqtt::RequestReplyData const& /*data*/,
                 RequestReply::ErrorCode error) override {
        interruption_.change([&] {
            requestId_ = requestId;
            error_ = error;
            ended_ = true;
        });
    }

    Interruption& interruption_;
    std::vector<std::string> payloads_;
    unsigned requestId_ = 0;
    RequestReply::ErrorCode error_ = RequestReply::ErrorCode::NONE;
    bool ended_ = false;
};

class Call final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(base_, "BASE", "the topic that all topics of the service begin with");
        arguments.required(service_, "SERVICE", "its name");
        arguments.optional(json_, "JSON", "the payload, an object");
        arguments.option(server_, "--server", "ID", "who shall answer");
        arguments.option(subPath_, "--sub-path", "TOPIC", "levels between server and service");
    }

    ExitCode run(Context& context) override {
        auto const payload = std::make_shared<RawPayload>(json_);
        auto const server = identifier(server_);
        auto const client = context.settings.clientId();
        Connection connection(context);
        Reply reply(context.interruption);
        TopicReader const reader(
            connection.client, replyTopic(base_, server, subPath_, service_, client),
            [&](mqtt::Topic const&, std::string const& document) { reply.keep(document); });
        mqtt::RequestReplyClient requests(connection.client, base_, subPath_, service_);
        requests.request(&reply, client, server, payload, nullptr, nullptr,
                         context.settings.timeout);
        if (!reply.wait(Clock::time_point::max())) {
            requests.cancel();
        }
        print(context.console, reply);
        return exitCode(reply.error());
    }

    static ExitCode exitCode(RequestReply::ErrorCode error) {
        switch (error) {
        case RequestReply::ErrorCode::SUCCESS:
            return ExitCode::DONE;
        case RequestReply::ErrorCode::TIMEOUT:
            return ExitCode::NO_ANSWER;
        case RequestReply::ErrorCode::CANCELLED:
            return ExitCode::INTERRUPTED;
        default:
            return ExitCode::FAILED;
        }
    }

    static void print(Console& console, Reply const& reply) {
        std::ostringstream name;
        name << reply.error();
        auto const document = reply.document();
        if (console.json()) {
            JsonLine line;
            line.number("error", static_cast<int>(reply.error())).text("name", name.str());
            console.print((document.empty() ? line : line.raw("reply", document)).finish());
            return;
        }
        name << " (code " << static_cast<int>(reply.error()) << ')';
        bool const succeeded = reply.error() == RequestReply::ErrorCode::SUCCESS;
        console.note(
            console.paint(succeeded ? Console::Colour::GREEN : Console::Colour::RED, name.str()));
        if (!document.empty()) {
            console.print(onOneLine(document));
        }
    }

    std::string base_;
    std::string service_;
    std::string json_;
    std::string server_;
    std::string subPath_;
};

} // namespace

std::unique_ptr<Command> makeCall() {
    return std::make_unique<Call>();
}
