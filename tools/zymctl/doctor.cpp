#include "arguments.hpp"
#include "documents.hpp"
#include "features.hpp"
#include "probes.hpp"

#include <exception>

namespace {

using Colour = Console::Colour;

/// Prints findings as sentences while they are made, or as one object at the end.
class Findings {
public:
    explicit Findings(Console& console) : console_(console) {}

    void say(bool good, std::string const& sentence) {
        allGood_ = allGood_ && good;
        if (!console_.json()) {
            console_.print(
                console_.paint(good ? Colour::GREEN : Colour::RED, good ? "[ok] " : "[no] ")
                + sentence);
        }
    }
    void note(std::string const& sentence) {
        if (!console_.json()) {
            console_.print("     " + sentence);
        }
    }
    ExitCode finish(Interruption& interruption) {
        if (console_.json()) {
            console_.print(object.finish());
        }
        return interruption.requested() ? ExitCode::INTERRUPTED
               : allGood_               ? ExitCode::DONE
                                        : ExitCode::FAILED;
    }

    JsonLine object;

private:
    Console& console_;
    bool allGood_ = true;
};

/// One way to connect, and what came of it.
struct Attempt {
    bool connected;
    std::string sentence;
};

Attempt tryToConnect(Context& context) {
    auto const& settings = context.settings;
    auto const who = settings.user.empty() ? "without a user name" : "as " + settings.user;
    auto const how = std::string(settings.usesTls() ? "with TLS" : "without TLS");
    try {
        Connection const connection(context);
        return {true, "Connected to " + settings.broker() + ", " + how + ", " + who + "."};
    } catch (CommandFailed const& failure) {
        return {false, "No connection " + how + ", " + who + ": " + failure.what()};
    }
}

/// The other way: with TLS in place of without, or the reverse, and then without secrets.
void switchTls(Settings& settings) {
    if (!settings.usesTls()) {
        settings.port = static_cast<unsigned>(settings.portNumber());
        settings.tls = true;
        return;
    }
    Settings plain;
    plain.host = settings.host;
    plain.port = static_cast<unsigned>(settings.portNumber());
    plain.timeout = settings.timeout;
    plain.json = settings.json;
    settings = plain;
}

class Doctor final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.optional(host_, "HOST", "the broker, as --host");
        arguments.option(base_, "--base", "TOPIC", "try topics below this one");
        arguments.option(maxPayload_, "--max-payload", "BYTES", "the largest payload to try");
    }

    ExitCode run(Context& context) override {
        if (!host_.empty()) {
            context.settings.host = host_;
        }
        if (base_.empty()) {
            base_ = "zymctl-doctor/" + randomIdentifier().base64URL();
        }
        Findings findings(context.console);
        if (!connect(context, findings)) {
            findings.finish(context.interruption);
            return ExitCode::NO_CONNECTION;
        }
        examine(context, findings);
        if (context.interruption.requested()) {
            erase(context.settings, base_);
        }
        return findings.finish(context.interruption);
    }

    /// Tries both ways; leaves the settings of the one that works, first the one asked for.
    static bool connect(Context& context, Findings& findings) {
        auto const asked = context.settings;
        auto const first = tryToConnect(context);
        findings.say(first.connected, first.sentence);
        JsonLine attempts;
        attempts.text(asked.usesTls() ? "tls" : "plain", first.sentence);
        bool connected = first.connected;
        if (asked.unixSocket.empty()) {
            switchTls(context.settings);
            auto const second = tryToConnect(context);
            findings.note(second.sentence);
            attempts.text(asked.usesTls() ? "plain" : "tls", second.sentence);
            if (first.connected || !second.connected) {
                context.settings = asked;
            }
            connected = connected || second.connected;
        }
        findings.object.text("host", asked.address())
            .number("port", asked.portNumber())
            .boolean("connect", connected)
            .boolean("tls", connected && context.settings.usesTls())
            .text("user", context.settings.user)
            .raw("attempts", attempts.finish());
        return connected;
    }

    void examine(Context& context, Findings& findings) const {
        auto const stopped = [&] { return context.interruption.requested(); };
        bool qos[3] = {};
        JsonLine qosObject;
        for (int level = 0; level < 3 && !stopped(); ++level) {
            context.console.progress("trying QoS " + std::to_string(level));
            qos[level] = supportsQos(context, base_, level);
            qosObject.boolean(std::to_string(level).c_str(), qos[level]);
            findings.say(qos[level], "Messages of QoS " + std::to_string(level)
                                         + (qos[level] ? " arrive." : " do not arrive as such."));
        }
        if (stopped()) {
            return;
        }
        bool const retained = keepsRetained(context, base_);
        findings.say(retained,
                     retained ? "Retained values are kept." : "Retained values are not kept.");
        findings.object.raw("qos", qosObject.finish()).boolean("retained", retained);
        examineWildcards(context, findings);
        examinePackets(context, findings, qos[1] ? 1 : 0);
        if (!stopped()) {
            examineFeatures(context, findings, qos[2], retained);
        }
    }

    void examineWildcards(Context& context, Findings& findings) const {
        bool const plus = supportsWildcard(context, base_, '+');
        bool const hash = supportsWildcard(context, base_, '#');
        findings.say(plus && hash, plus && hash ? "The wildcards + and # work."
                                   : plus       ? "The wildcard # does not work."
                                   : hash       ? "The wildcard + does not work."
                                                : "Neither of the wildcards + and # works.");
        findings.object.raw("wildcards",
                            JsonLine().boolean("plus", plus).boolean("hash", hash).finish());
    }

    void examinePackets(Context& context, Findings& findings, int qos) const {
        context.console.progress("trying sizes");
        auto const largest = largestPayload(context, base_, maxPayload_);
        bool const all = largest * 2 > maxPayload_;
        findings.note("Payloads of " + std::to_string(largest) + " bytes arrive"
                      + (all ? "; no larger ones were tried." : ", of twice that many do not."));
        auto const ms = exchangeMs(context, base_, qos);
        constexpr double PROMPT_MS = 20;
        findings.note(
            ms < 0 ? "How fast it answers could not be measured."
            : ms < PROMPT_MS
                ? "The broker sends its packets at once: an exchange takes " + fixed(ms, 2) + " ms."
                : "The broker waits for acknowledgements before it sends on: " + fixed(ms, 0)
                      + " ms. This library prevents that; for other clients let it set "
                        "TCP_NODELAY.");
        bool const order = keepsOrderOfUnsubscribe(context, base_);
        findings.say(order, order ? "An UNSUBSCRIBE ends before the SUBSCRIBE that follows it."
                                  : "A SUBSCRIBE that follows an UNSUBSCRIBE of the same topic is "
                                    "answered first or lost.");
        findings.object.number("maxPayload", static_cast<double>(largest))
            .raw("ackDelayMs", ms < 0 ? "null" : fixed(ms, 2))
            .boolean("unsubscribeOrder", order);
    }

    void examineFeatures(Context& context, Findings& findings, bool qos2, bool retained) const {
        JsonLine features;
        for (auto const& feature : FEATURES) {
            if (context.interruption.requested()) {
                break;
            }
            context.console.progress(std::string("trying ") + feature.name);
            char const* const missing = feature.needsQos2 && !qos2 ? ": needs QoS 2."
                                        : feature.needsRetained && !retained
                                            ? ": needs retained values."
                                            : nullptr;
            bool const works = missing == nullptr && tryFeature(feature, context);
            findings.say(works, std::string(feature.text)
                                    + (works                ? ": works."
                                       : missing != nullptr ? missing
                                                            : ": does not work."));
            features.boolean(feature.name, works);
        }
        findings.object.raw("features", features.finish());
    }

    bool tryFeature(Feature const& feature, Context& context) const {
        try {
            return feature.works(context, base_);
        } catch (std::exception const&) {
            return false; // the connection is lost
        }
    }

    std::string host_;
    std::string base_;
    unsigned maxPayload_ = 16U << 20U;
};

} // namespace

std::unique_ptr<Command> makeDoctor() {
    return std::make_unique<Doctor>();
}
