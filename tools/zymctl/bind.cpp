#include "arguments.hpp"
#include "documents.hpp"

#include <mqtt/binder_proxy.hpp>

#include <algorithm>
#include <iterator>

namespace {

using Error = zym::common::Binder::Error;

/// Tells how the binding has ended.
class Binding final : public zym::common::BinderProxy::Listener, public Awaited<Error> {
public:
    using Awaited::Awaited;

private:
    void onBound(Error error) override { give(error); }
    void onUnbound(Error /*error*/) override {}
};

bool isBound(Error error) {
    return error == Error::SUCCESS || error == Error::ALREADY_BOUND;
}

std::string nameOf(Error error) {
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

class Bind final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(base_, "BASE", "the topic that all topics of the server begin with");
        arguments.option(server_, "--server", "ID", "to whom to bind");
        arguments.option(subPath_, "--sub-path", "TOPIC", "levels between server and service");
        arguments.option(bound_, "--topic", "TOPIC",
                         "sent with the request; the service gives it a meaning");
        arguments.option(seconds_, "--for", "SECONDS",
                         "how long to hold the binding; else until Ctrl-C");
    }

    ExitCode run(Context& context) override {
        auto const server = identifier(server_);
        auto const client = context.settings.clientId();
        Connection connection(context);
        Binding binding(context.interruption);
        mqtt::BinderMqttProxy proxy(connection.client, base_, subPath_, client, bound_, &binding);
        proxy.bind(server, context.settings.timeout);
        auto const& ended = binding.wait(context.settings.deadline() + std::chrono::seconds(5));
        bool const interrupted = context.interruption.requested();
        auto const error = ended ? *ended : interrupted ? Error::CANCELLED : Error::TIMEOUT;
        report(context.console, error, proxy.timeBase());
        if (!isBound(error)) {
            proxy.unbindSync(interrupted ? 1 : context.settings.timeout);
            return interrupted               ? ExitCode::INTERRUPTED
                   : error == Error::TIMEOUT ? ExitCode::NO_ANSWER
                                             : ExitCode::FAILED;
        }
        hold(context, proxy);
        auto const left = proxy.unbindSync(context.settings.timeout);
        context.console.note(left == Error::SUCCESS ? "not bound any more" : nameOf(left));
        return left == Error::SUCCESS ? ExitCode::DONE : ExitCode::FAILED;
    }

    void hold(Context& context, mqtt::BinderMqttProxy const& proxy) const {
        auto const end = seconds_ == 0 ? Clock::time_point::max()
                                       : Clock::now() + std::chrono::seconds(seconds_);
        while (!context.interruption.requested() && Clock::now() < end) {
            context.console.progress("server's time: " + std::to_string(proxy.timeBase())
                                     + " s; Ctrl-C ends the binding");
            context.interruption.pause(std::min(end, Clock::now() + std::chrono::seconds(1)));
        }
    }

    static void report(Console& console, Error error, unsigned time) {
        bool const bound = isBound(error);
        console.print(console.json()
                          ? JsonLine()
                                .boolean("bound", bound)
                                .number("error", static_cast<int>(error))
                                .text("text", nameOf(error))
                                .number("serverTime", time)
                                .finish()
                          : nameOf(error)
                                + (bound ? "; server's time: " + std::to_string(time) + " s" : ""));
    }

    std::string base_;
    std::string server_;
    std::string subPath_;
    std::string bound_;
    unsigned seconds_ = 0;
};

} // namespace

std::unique_ptr<Command> makeBind() {
    return std::make_unique<Bind>();
}
