// The commands for services: call, serve, bind, time.

#include "commands.hpp"
#include "documents.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/request_reply.hpp>
#include <mqtt/time_base.hpp>

#include <atomic>
#include <cstdint>
#include <exception>
#include <iterator>
#include <sstream>

using mqtt::RequestReply;
using mqtt::RequestReplyData;
using mqtt::Topic;
using zym::common::Uuid;
using zym::common::lwjson::Deserializer;

namespace {

/// The members of any JSON object as the payload of a request or a reply. Reads nothing.
class RawPayload final : public RequestReplyData {
public:
    /// @param json an object, or empty for no members
    /// @throws CommandFailed it is no object
    explicit RawPayload(std::string const& json) {
        if (!json.empty() && !isJsonObject(json)) {
            throw CommandFailed(ExitCode::USAGE, "this is no JSON object: " + printable(json));
        }
        // The text is valid: what begins with a quotation mark is a key, and a value follows.
        auto const begin = json.find('"');
        if (begin == std::string::npos) {
            return;
        }
        auto end = begin + 1;
        while (json[end] != '"') {
            end += json[end] == '\\' ? 2U : 1U;
        }
        auto const key = std::string_view(json).substr(begin, end + 1 - begin);
        Deserializer::extractValue(key, firstKey_, "");
        auto const value = json.find_first_not_of(" \t\r\n", json.find(':', end) + 1);
        rest_ = json.substr(value, json.rfind('}') - value);
    }

    void serialize(zym::common::lwjson::Serializer& out) const override {
        if (!rest_.empty()) {
            out.appendKey(firstKey_.c_str());
            out.appendValue(rest_.c_str());
        }
    }
    void deserialize(Deserializer& /*in*/) override {}

private:
    std::string firstKey_;
    std::string rest_; ///< the first value and all further members, as JSON text; empty: none
};

/// The topic of the replies of a service to a client.
Topic replyTopic(Settings const& settings, std::string const& service, Uuid const& client) {
    Topic topic = settings.topic;
    if (auto const server = identifier(settings.server); !server.isNil()) {
        topic += server;
    }
    topic += settings.subPath;
    topic += service + mqtt::REPLY_SUFFIX;
    topic += client;
    return topic;
}

/// How a request has ended.
struct End {
    RequestReply::ErrorCode error;
    std::string document; ///< of the reply; empty: none
};

/// Waits for the end of one request, and for the message that ends it.
class Reply final : public mqtt::RequestReplyClient::Listener, public Awaited<End> {
public:
    using Awaited::Awaited;

    /// Called with each message on the reply topic, before the library reads it.
    void onMessage(std::string const& payload) {
        std::lock_guard<std::mutex> const lock(mutex_);
        last_ = payload;
    }

private:
    void onReply(unsigned requestId, std::string const& /*name*/, Uuid const& /*client*/,
                 Uuid const& /*server*/, RequestReplyData const& /*data*/,
                 RequestReply::ErrorCode error) override {
        std::lock_guard<std::mutex> const lock(mutex_);
        // Replies to others with the same client identifier are on the topic, too.
        bool const isOurs = isJsonObject(last_)
                            && Deserializer(std::string_view(last_)).getMember("$reqId")
                                   == std::to_string(requestId);
        give({error, isOurs ? last_ : ""});
    }

    std::mutex mutex_;
    std::string last_;
};

/// Gives every request the same answer.
class FixedAnswer final : public mqtt::RequestReplyServer::Listener {
public:
    explicit FixedAnswer(Settings const& settings)
        : document_(std::make_shared<RawPayload>(settings.value)), code_(settings.code) {}
    unsigned count() const { return count_; }

private:
    std::shared_ptr<RequestReplyData> onRequest(std::string const& /*name*/, Uuid const& /*client*/,
                                                Uuid const& /*server*/,
                                                RequestReplyData const& /*data*/,
                                                RequestReply::ErrorCode& error) override {
        error = static_cast<RequestReply::ErrorCode>(code_);
        ++count_;
        return document_;
    }

    std::shared_ptr<RequestReplyData> const document_;
    unsigned const code_;
    std::atomic<unsigned> count_{0};
};

using BindError = zym::common::Binder::Error;

/// Tells how the binding has ended.
class Binding final : public zym::common::BinderProxy::Listener, public Awaited<BindError> {
public:
    using Awaited::Awaited;

private:
    void onBound(BindError error) override { give(error); }
    void onUnbound(BindError /*error*/) override {}
};

std::string nameOf(BindError error) {
    constexpr char const* NAMES[] = {"bound",
                                     "the request failed",
                                     "the server is busy",
                                     "no answer",
                                     "nobody serves bindings",
                                     "bound already",
                                     "not bound",
                                     "refused",
                                     "bound, but the server's time is not known",
                                     "interrupted"};
    auto const code = static_cast<unsigned>(error);
    return code < std::size(NAMES) ? NAMES[code] : "refused with code " + std::to_string(code);
}

/// Tells when the time is known.
class Synchronized final : public zym::common::SynchronizedTimeBaseProxy::Listener,
                           public Awaited<bool> {
public:
    using Awaited::Awaited;

private:
    void onTimeSynchronized() override { give(true); }
};

/// What one exchange says, and the estimate of those before.
void printSample(Console& console, unsigned number,
                 mqtt::SynchronizedTimeBaseMqttProxy const& proxy, std::string const& reply) {
    mqtt::TimeSyncReplyData data;
    try {
        Deserializer in{std::string_view(reply)};
        data.deserialize(in);
    } catch (std::exception const&) {
        return; // a reply without the time
    }
    double const now = proxy.localTimeBase();
    double const offset = (data.client + now) / 2 - data.ref;
    double const roundTripMs = (now - data.client) * 1000;
    console.report(JsonLine()
                       .number("sample", number)
                       .number("offset", offset)
                       .number("estimateBefore", proxy.offset())
                       .number("roundTripMs", roundTripMs),
                   "sample " + std::to_string(number) + ": offset " + fixed(offset, 4)
                       + " s, estimate before " + fixed(proxy.offset(), 4) + " s, round trip "
                       + fixed(roundTripMs, 0) + " ms");
}

} // namespace

ExitCode runCall(Context& context) {
    auto const& settings = context.settings;
    auto& console = context.console;
    auto const payload = std::make_shared<RawPayload>(settings.value);
    auto const client = settings.clientId();
    auto const topic = replyTopic(settings, settings.service, client);
    Connection connection(context);
    Reply reply(context.interruption);
    TopicReader const reader(
        connection.client, topic,
        [&](Topic const&, std::string const& document) { reply.onMessage(document); });
    mqtt::RequestReplyClient requests(connection.client, settings.topic, settings.subPath,
                                      settings.service);
    requests.request(&reply, client, identifier(settings.server), payload, nullptr, nullptr,
                     settings.timeout);
    if (!reply.wait(Clock::time_point::max())) {
        requests.cancel();
    }
    auto const end = reply.wait(Clock::now()).value_or(End{RequestReply::ErrorCode::CANCELLED, ""});
    std::ostringstream name;
    name << end.error;
    if (console.json()) {
        JsonLine line;
        line.number("error", static_cast<int>(end.error)).text("name", name.str());
        console.print((end.document.empty() ? line : line.raw("reply", end.document)).finish());
    } else {
        auto const colour = end.error == RequestReply::ErrorCode::SUCCESS ? Console::Colour::GREEN
                                                                          : Console::Colour::RED;
        name << " (code " << static_cast<int>(end.error) << ')';
        console.note(console.paint(colour, name.str()));
        if (!end.document.empty()) {
            console.print(onOneLine(end.document));
        }
    }
    return end.error == RequestReply::ErrorCode::SUCCESS     ? ExitCode::DONE
           : end.error == RequestReply::ErrorCode::TIMEOUT   ? ExitCode::NO_ANSWER
           : end.error == RequestReply::ErrorCode::CANCELLED ? ExitCode::INTERRUPTED
                                                             : ExitCode::FAILED;
}

ExitCode runServe(Context& context) {
    auto const& settings = context.settings;
    if (settings.code > UINT8_MAX) {
        throw CommandFailed(ExitCode::USAGE, "a code is 0 to 255");
    }
    FixedAnswer answer(settings);
    auto const server = identifier(settings.server);
    Connection connection(context);
    mqtt::RequestReplyServer requests(connection.client, settings.topic, settings.subPath,
                                      settings.service);
    require(requests.subscribe(&answer, server, std::make_shared<RawPayload>("")), "cannot serve");
    {
        TopicReader const reader(
            connection.client, requests.requestTopic() + "+",
            [&](Topic const& topic, std::string const& payload) {
                auto const client = topic[topic.size() - 1];
                context.console.report(
                    JsonLine().text("topic", topic.text()).text("client", client).payload(payload),
                    client + ' ' + printable(payload));
            });
        context.console.note("serving " + requests.requestTopic().text() + ", ends with Ctrl-C");
        context.interruption.pause(Clock::time_point::max());
    }
    requests.release();
    context.console.note("answered " + std::to_string(answer.count()) + " requests");
    return ExitCode::DONE;
}

ExitCode runBind(Context& context) {
    auto const& settings = context.settings;
    auto& interruption = context.interruption;
    auto& console = context.console;
    auto const server = identifier(settings.server);
    auto const client = settings.clientId();
    Connection connection(context);
    Binding binding(interruption);
    mqtt::BinderMqttProxy proxy(connection.client, settings.topic, settings.subPath, client,
                                settings.boundTopic, &binding);
    proxy.bind(server, settings.timeout);
    auto const& answer = binding.wait(settings.deadline() + std::chrono::seconds(5));
    bool const interrupted = interruption.requested();
    auto const error = answer.value_or(interrupted ? BindError::CANCELLED : BindError::TIMEOUT);
    bool const bound = error == BindError::SUCCESS || error == BindError::ALREADY_BOUND;
    auto const time = [&] { return std::to_string(proxy.timeBase()) + " s"; };
    console.report(JsonLine()
                       .boolean("bound", bound)
                       .number("error", static_cast<int>(error))
                       .text("text", nameOf(error))
                       .number("serverTime", proxy.timeBase()),
                   nameOf(error) + (bound ? "; server's time: " + time() : ""));
    if (!bound) {
        proxy.unbindSync(interrupted ? 1 : settings.timeout);
        return context.interruptedOr(error == BindError::TIMEOUT ? ExitCode::NO_ANSWER
                                                                 : ExitCode::FAILED);
    }
    auto const end = settings.end();
    while (!interruption.requested() && Clock::now() < end) {
        console.progress("server's time: " + time() + "; Ctrl-C ends the binding");
        interruption.pause(std::min(end, Clock::now() + std::chrono::seconds(1)));
    }
    auto const left = proxy.unbindSync(settings.timeout);
    console.note(left == BindError::SUCCESS ? "not bound any more" : nameOf(left));
    return left == BindError::SUCCESS ? ExitCode::DONE : ExitCode::FAILED;
}

ExitCode runTime(Context& context) {
    auto const& settings = context.settings;
    auto const server = identifier(settings.server);
    auto const client = settings.clientId();
    Connection connection(context);
    Synchronized synchronized(context.interruption);
    unsigned samples = 0;
    mqtt::SynchronizedTimeBaseMqttProxy proxy(connection.client, settings.topic, client,
                                              &synchronized);
    TopicReader const reader(connection.client,
                             replyTopic(settings, mqtt::TIME_SYNC_REQUEST_REPLY_NAME, client),
                             [&](Topic const&, std::string const& reply) {
                                 printSample(context.console, ++samples, proxy, reply);
                             });
    proxy.startSync(server);
    if (!synchronized.wait(settings.deadline())) {
        throw CommandFailed(context.interruptedOr(ExitCode::NO_ANSWER),
                            "the server does not tell its time");
    }
    if (settings.watch) {
        context.interruption.pause(Clock::time_point::max());
    }
    context.console.report(JsonLine()
                               .number("serverTime", proxy.timeBase())
                               .number("localTime", proxy.localTimeBase())
                               .number("offset", proxy.offset()),
                           "server's time " + std::to_string(proxy.timeBase()) + " s, own "
                               + fixed(proxy.localTimeBase(), 3) + " s; the server's clock is "
                               + fixed(proxy.offset(), 4) + " s behind");
    return ExitCode::DONE;
}
