#include "arguments.hpp"
#include "documents.hpp"
#include "raw_payload.hpp"

#include <mqtt/time_base.hpp>

#include <exception>

namespace {

using zym::common::lwjson::Deserializer;

/// Tells when the time is known.
class Synchronized final : public zym::common::SynchronizedTimeBaseProxy::Listener,
                           public Awaited<bool> {
public:
    using Awaited::Awaited;

private:
    void onTimeSynchronized() override { give(true); }
};

class Time final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(base_, "BASE", "the topic that all topics of the server begin with");
        arguments.option(server_, "--server", "ID", "whose time");
        arguments.flag(watch_, "--watch", "until Ctrl-C; there is an exchange every 30 seconds");
    }

    ExitCode run(Context& context) override {
        auto const server = identifier(server_);
        auto const client = context.settings.clientId();
        Connection connection(context);
        Synchronized synchronized(context.interruption);
        unsigned samples = 0;
        mqtt::SynchronizedTimeBaseMqttProxy proxy(connection.client, base_, client, &synchronized);
        TopicReader const reader(
            connection.client,
            replyTopic(base_, server, mqtt::Topic(), mqtt::TIME_SYNC_REQUEST_REPLY_NAME, client),
            [&](mqtt::Topic const&, std::string const& reply) {
                printSample(context.console, ++samples, proxy, reply);
            });
        proxy.startSync(server);
        if (!synchronized.wait(context.settings.deadline())) {
            throw CommandFailed(context.interruption.requested() ? ExitCode::INTERRUPTED
                                                                 : ExitCode::NO_ANSWER,
                                "the server does not tell its time");
        }
        if (watch_) {
            context.interruption.pause(Clock::time_point::max());
        }
        report(context.console, proxy);
        return ExitCode::DONE;
    }

    /// What one exchange says, and the estimate of those before.
    static void printSample(Console& console, unsigned number,
                            mqtt::SynchronizedTimeBaseMqttProxy const& proxy,
                            std::string const& reply) {
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
        console.print(console.json()
                          ? JsonLine()
                                .number("sample", number)
                                .number("offset", offset)
                                .number("estimateBefore", proxy.offset())
                                .number("roundTripMs", roundTripMs)
                                .finish()
                          : "sample " + std::to_string(number) + ": offset " + fixed(offset, 4)
                                + " s, estimate before " + fixed(proxy.offset(), 4)
                                + " s, round trip " + fixed(roundTripMs, 0) + " ms");
    }

    static void report(Console& console, mqtt::SynchronizedTimeBaseMqttProxy const& proxy) {
        console.print(console.json()
                          ? JsonLine()
                                .number("serverTime", proxy.timeBase())
                                .number("localTime", proxy.localTimeBase())
                                .number("offset", proxy.offset())
                                .finish()
                          : "server's time " + std::to_string(proxy.timeBase()) + " s, own "
                                + fixed(proxy.localTimeBase(), 3) + " s; the server's clock is "
                                + fixed(proxy.offset(), 4) + " s behind");
    }

    std::string base_;
    std::string server_;
    bool watch_ = false;
};

} // namespace

std::unique_ptr<Command> makeTime() {
    return std::make_unique<Time>();
}
