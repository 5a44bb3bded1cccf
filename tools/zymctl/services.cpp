// The commands for services: call, serve, bind, time.

#include "commands.hpp"
#include "documents.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/fields.hpp>
#include <mqtt/request_reply.hpp>
#include <mqtt/time_base.hpp>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <optional>
#include <sstream>

using mqtt::RequestReply;
using mqtt::Topic;

namespace {

constexpr int QOS = 2; ///< of requests and replies

/// The topic of the requests to a service, or of its replies, without the client's level.
Topic serviceTopic(Settings const& settings, std::string const& service, char const* suffix) {
    if (service.find('/') != std::string::npos) {
        throw CommandFailed(ExitCode::USAGE, "the name of a service has no '/': " + service);
    }
    Topic topic = settings.topic;
    if (auto const server = identifier(settings.server); !server.isNil()) {
        topic += server;
    }
    topic += settings.subPath;
    topic += service + suffix;
    return topic;
}

/// The members of a JSON object as they are written, to follow those of another object.
/// @param json may be empty: no members
/// @throws CommandFailed it is no object
std::string furtherMembers(std::string const& json) {
    if (json.empty()) {
        return "";
    }
    if (!isJsonObject(json)) {
        throw CommandFailed(ExitCode::USAGE, "this is no JSON object: " + printable(json));
    }
    auto const begin = json.find('{') + 1;
    auto const members = json.substr(begin, json.rfind('}') - begin);
    bool const isEmpty = members.find('"') == std::string::npos;
    return isEmpty ? "" : ", " + members;
}

void printReply(Console& console, RequestReply::ErrorCode error, std::string const& reply) {
    std::ostringstream name;
    name << error;
    auto const code = static_cast<int>(error);
    if (console.json()) {
        JsonLine line("error", code, "name", name.str());
        console.reportJson(std::move(reply.empty() ? line : line.addRaw("reply", reply)));
        return;
    }
    auto const colour =
        error == RequestReply::ErrorCode::SUCCESS ? Console::Colour::GREEN : Console::Colour::RED;
    console.note(console.paint(colour, name.str() + " (code " + std::to_string(code) + ')'));
    if (!reply.empty()) {
        console.print(onOneLine(reply));
    }
}

using BindError = zym::common::Binder::Error;

/// Learns how a binding ends.
class Binding final : public zym::common::BinderProxy::Listener {
public:
    static constexpr int UNDER_WAY = -1;
    std::atomic<int> error{UNDER_WAY};

private:
    void onBound(BindError how) override { error = static_cast<int>(how); }
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

/// Learns when the time is known.
class Synchronized final : public zym::common::SynchronizedTimeBaseProxy::Listener {
public:
    std::atomic<bool> isDone{false};

private:
    void onTimeSynchronized() override { isDone = true; }
};

struct TimeReply {
    double client = 0; ///< when the request was made, by the client's clock
    double ref = 0;    ///< when it was answered, by the server's
};
ZYM_MQTT_VALUE(TimeReply, "", 2, false, client, ref)

/// What one exchange says, and the estimate of those before.
void printSample(Console& console, unsigned number,
                 mqtt::SynchronizedTimeBaseMqttProxy const& proxy, TimeReply const& reply) {
    double const now = proxy.localTimeBase();
    double const offset = (reply.client + now) / 2 - reply.ref;
    double const roundTripMs = (now - reply.client) * 1000;
    console.report(JsonLine("sample", number, "offset", offset, "estimateBefore", proxy.offset(),
                            "roundTripMs", roundTripMs),
                   "sample " + std::to_string(number) + ": offset " + fixed(offset, 4)
                       + " s, estimate before " + fixed(proxy.offset(), 4) + " s, round trip "
                       + fixed(roundTripMs, 0) + " ms");
}

} // namespace

ExitCode runCall(Context& context) {
    using ErrorCode = RequestReply::ErrorCode;
    auto const& settings = context.settings;
    auto const client = settings.clientId();
    auto const request = serviceTopic(settings, settings.service, mqtt::REQUEST_SUFFIX) + client;
    auto const id = static_cast<unsigned>(Clock::now().time_since_epoch().count());
    auto const document =
        "{\"$reqId\": " + std::to_string(id) + furtherMembers(settings.value) + '}';
    Connection connection(context);
    connection.subscribe(serviceTopic(settings, settings.service, mqtt::REPLY_SUFFIX) + client);
    require(connection.client.publish(request, document, QOS, false), "cannot send the request");
    std::string reply;
    std::optional<std::uint8_t> code;
    bool const arrived = connection.read(settings.deadline(), [&](Message const& message) {
        reply = message.payload;
        code = readMember<std::uint8_t>(reply, "$err");
        // Replies to others with the same client identifier are on the topic, too.
        return code && readMember<unsigned>(reply, "$reqId") == id;
    });
    auto const error = arrived                            ? static_cast<ErrorCode>(*code)
                       : context.interruption.requested() ? ErrorCode::CANCELLED
                                                          : ErrorCode::TIMEOUT;
    printReply(context.console, error, arrived ? reply : "");
    return !arrived                      ? context.interruptedOr(ExitCode::NO_ANSWER)
           : error == ErrorCode::SUCCESS ? ExitCode::DONE
                                         : ExitCode::FAILED;
}

ExitCode runServe(Context& context) {
    auto const& settings = context.settings;
    auto const requests = serviceTopic(settings, settings.service, mqtt::REQUEST_SUFFIX);
    auto const replies = serviceTopic(settings, settings.service, mqtt::REPLY_SUFFIX);
    auto const answer =
        ", \"$err\": " + std::to_string(settings.code) + furtherMembers(settings.value) + '}';
    unsigned answered = 0;
    Connection connection(context);
    connection.subscribe(requests + "+");
    context.console.note("serving " + requests.text() + ", ends with Ctrl-C");
    connection.read(Clock::time_point::max(), [&](Message const& message) {
        auto const client = message.topic[message.topic.size() - 1];
        JsonLine line("topic", message.topic.text(), "client", client);
        context.console.report(std::move(line.addPayload(message.payload)),
                               client + ' ' + printable(message.payload));
        if (auto const id = readMember<unsigned>(message.payload, "$reqId")) {
            connection.client.publish(replies + client,
                                      "{\"$reqId\": " + std::to_string(*id) + answer, QOS, false);
            ++answered;
        }
        return false;
    });
    context.console.note("answered " + std::to_string(answered) + " requests");
    return ExitCode::DONE;
}

ExitCode runBind(Context& context) {
    auto const& settings = context.settings;
    auto& interruption = context.interruption;
    auto& console = context.console;
    auto const server = identifier(settings.server);
    auto const client = settings.clientId();
    Connection connection(context);
    Binding binding;
    mqtt::BinderMqttProxy proxy(connection.client, settings.topic, settings.subPath, client,
                                settings.boundTopic, &binding);
    proxy.bind(server, settings.timeout);
    bool const ended = interruption.wait(settings.deadline() + std::chrono::seconds(5),
                                         [&] { return binding.error != Binding::UNDER_WAY; });
    bool const interrupted = interruption.requested();
    auto const error = ended         ? static_cast<BindError>(binding.error.load())
                       : interrupted ? BindError::CANCELLED
                                     : BindError::TIMEOUT;
    bool const bound = error == BindError::SUCCESS || error == BindError::ALREADY_BOUND;
    auto const time = [&] { return std::to_string(proxy.timeBase()) + " s"; };
    console.report(JsonLine("bound", bound, "error", static_cast<int>(error), "text", nameOf(error),
                            "serverTime", proxy.timeBase()),
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
    auto const topic =
        serviceTopic(settings, mqtt::TIME_SYNC_REQUEST_REPLY_NAME, mqtt::REPLY_SUFFIX) + client;
    Connection connection(context);
    Synchronized synchronized;
    mqtt::SynchronizedTimeBaseMqttProxy proxy(connection.client, settings.topic, client,
                                              &synchronized);
    unsigned samples = 0;
    // Subscribes before the proxy, and so gets each reply first.
    auto const onReply = [&](TimeReply const& reply, bool empty) {
        if (!empty) {
            printSample(context.console, ++samples, proxy, reply);
        }
    };
    auto const subscription =
        mqtt::MqttData<TimeReply>(connection.client, topic).subscribe(onReply);
    require(subscription.result(), "cannot subscribe to " + topic.text());
    proxy.startSync(server);
    auto const isDone = [&] { return synchronized.isDone.load(); };
    if (!context.interruption.wait(settings.deadline(), isDone)) {
        throw CommandFailed(context.interruptedOr(ExitCode::NO_ANSWER),
                            "the server does not tell its time");
    }
    if (settings.watch) {
        context.interruption.pause(Clock::time_point::max());
    }
    context.console.report(JsonLine("serverTime", proxy.timeBase(), "localTime",
                                    proxy.localTimeBase(), "offset", proxy.offset()),
                           "server's time " + std::to_string(proxy.timeBase()) + " s, own "
                               + fixed(proxy.localTimeBase(), 3) + " s; the server's clock is "
                               + fixed(proxy.offset(), 4) + " s behind");
    return ExitCode::DONE;
}
