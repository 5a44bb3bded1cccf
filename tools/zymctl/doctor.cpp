// The command doctor.

#include "commands.hpp"
#include "probes.hpp"

#include <exception>
#include <map>

namespace {

/// Prints findings as sentences while they are made, or as one object at the end.
class Findings {
public:
    explicit Findings(Console& console) : console_(console) {}

    void say(bool good, std::string const& sentence) {
        using Colour = Console::Colour;
        allGood = allGood && good;
        note(console_.paint(good ? Colour::GREEN : Colour::RED, good ? "[ok] " : "[no] ")
             + sentence);
    }
    void note(std::string const& sentence) {
        if (!console_.json()) {
            console_.print(sentence);
        }
    }

    JsonLine object;
    bool allGood = true;

private:
    Console& console_;
};

/// Tries one way, and adds what came of it.
bool tryToConnect(Context& context, JsonLine& attempts, std::string& sentence) {
    auto const& settings = context.settings;
    auto const who = settings.user.empty() ? "without a user name" : "as " + settings.user;
    auto const how = std::string(settings.usesTls() ? "with TLS" : "without TLS") + ", " + who;
    bool connected = false;
    try {
        Connection const connection(context);
        connected = true;
        sentence = "Connected to " + settings.broker() + ", " + how + ".";
    } catch (CommandFailed const& failure) {
        sentence = "No connection " + how + ": " + failure.what();
    }
    attempts.add(settings.usesTls() ? "tls" : "plain", sentence);
    return connected;
}

/// The other way, at the same port: without TLS, and then without secrets, or with TLS.
void switchTls(Settings& settings) {
    settings.port = static_cast<std::uint16_t>(settings.portNumber());
    if (settings.usesTls()) {
        static_cast<Security&>(settings) = {};
    } else {
        settings.tls = true;
    }
}

/// Tries both ways; leaves the settings of the one that works, first the one asked for.
bool connect(Context& context, Findings& findings) {
    auto const asked = context.settings;
    JsonLine attempts;
    std::string sentence;
    bool connected = tryToConnect(context, attempts, sentence);
    findings.say(connected, sentence);
    if (asked.unixSocket.empty()) {
        switchTls(context.settings);
        bool const otherWay = tryToConnect(context, attempts, sentence);
        findings.note("     " + sentence);
        if (connected || !otherWay) {
            context.settings = asked;
        }
        connected = connected || otherWay;
    }
    findings.object.add("host", asked.address())
        .add("port", asked.portNumber())
        .add("connect", connected)
        .add("tls", connected && context.settings.usesTls())
        .add("user", context.settings.user)
        .addRaw("attempts", attempts.finish());
    return connected;
}

/// @param missing what the broker does not do and the probe needs; or null
bool tryProbe(Context& context, Findings& findings, Probe const& probe, char const* missing) {
    context.console.progress(std::string("trying ") + probe.text);
    bool works = false;
    try {
        works = missing == nullptr && probe.works(context, context.settings.topic);
    } catch (std::exception const&) { // the connection is lost
    }
    auto const* const result = works ? "works" : missing != nullptr ? missing : "does not work";
    findings.say(works, std::string(probe.text) + ": " + result + '.');
    return works;
}

void measure(Context& context, Findings& findings, bool hasQos1) {
    auto const& base = context.settings.topic;
    context.console.progress("trying sizes");
    auto const largest = largestPayload(context, base);
    bool const all = largest * 2 > context.settings.maxPayload;
    findings.note("     Payloads of " + std::to_string(largest) + " bytes arrive"
                  + (all ? "; no larger ones were tried." : ", of twice that many do not."));
    auto const ms = exchangeMs(context, base, hasQos1 ? 1 : 0);
    constexpr double PROMPT_MS = 20;
    findings.note(
        ms < 0 ? "     How fast it answers could not be measured."
        : ms < PROMPT_MS
            ? "     The broker sends its packets at once: an exchange takes " + fixed(ms, 2)
                  + " ms."
            : "     The broker waits for acknowledgements before it sends on: " + fixed(ms, 0)
                  + " ms. This library prevents that; for other clients let it set TCP_NODELAY.");
    findings.object.add("maxPayload", largest).addRaw("ackDelayMs", ms < 0 ? "null" : fixed(ms, 2));
}

void examine(Context& context, Findings& findings) {
    std::map<std::string, JsonLine> objects;
    std::map<std::string, bool> works;
    auto const stopped = [&] { return context.interruption.requested(); };
    for (auto const& probe : probes()) {
        if (stopped()) {
            break;
        }
        auto const* const missing = probe.needsQos2 && !works["2"] ? "needs QoS 2"
                                    : probe.needsRetained && !works["retained"]
                                        ? "needs retained values"
                                        : nullptr;
        works[probe.member] = tryProbe(context, findings, probe, missing);
        (probe.object == nullptr ? findings.object : objects[probe.object])
            .add(probe.member, works[probe.member]);
    }
    if (!stopped()) {
        measure(context, findings, works["1"]);
    }
    for (auto& object : objects) {
        findings.object.addRaw(object.first.c_str(), object.second.finish());
    }
    if (stopped() || !findings.allGood) {
        erase(context.settings, context.settings.topic);
    }
}

} // namespace

ExitCode runDoctor(Context& context) {
    auto& base = context.settings.topic;
    if (base.empty()) {
        base = "zymctl-doctor/" + randomIdentifier().base64URL();
    }
    Findings findings(context.console);
    bool const connected = connect(context, findings);
    if (connected) {
        examine(context, findings);
    }
    context.console.reportJson(std::move(findings.object));
    return !connected ? ExitCode::NO_CONNECTION
                      : context.interruptedOr(findings.allGood ? ExitCode::DONE : ExitCode::FAILED);
}
