#include "commands.hpp"
#include "plain_client.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <algorithm>
#include <exception>
#include <map>
#include <memory>

using mqtt::Topic;
using zym::common::Uuid;

namespace {

// First what the broker does, tried with the broker library alone.

template <int QOS>
bool qosWorks(Context& context, std::string const& base) {
    PlainClient client(context);
    auto const topic = base + "/qos" + std::to_string(QOS);
    PlainClient::Message message;
    return client.connect() && client.subscribe(topic, QOS) == QOS
           && client.publish(topic, "x", QOS, false) && client.receive(topic, message)
           && message.qos == QOS;
}

bool retainedValuesWork(Context& context, std::string const& base) {
    PlainClient writer(context);
    PlainClient reader(context);
    auto const topic = base + "/retained";
    PlainClient::Message message;
    bool const kept = writer.connect() && writer.publish(topic, "x", 1, true) && reader.connect()
                      && reader.subscribe(topic, 0) >= 0 && reader.receive(topic, message)
                      && message.retained;
    if (writer.isConnected()) {
        writer.publish(topic, "", 1, true);
    }
    return kept;
}

bool plusWorks(Context& context, std::string const& base) {
    PlainClient client(context);
    return client.connect() && client.subscribe(base + "/wildcard/+", 0) >= 0
           && client.exchange(base + "/wildcard/plus", "x", 0);
}

bool hashWorks(Context& context, std::string const& base) {
    PlainClient client(context);
    return client.connect() && client.subscribe(base + "/wildcard/#", 0) >= 0
           && client.exchange(base + "/wildcard/hash/level", "x", 0);
}

/// It answers an UNSUBSCRIBE before a SUBSCRIBE that follows it, and the subscription holds.
bool orderOfUnsubscribeWorks(Context& context, std::string const& base) {
    constexpr int ROUNDS = 10;
    PlainClient client(context);
    auto const topic = base + "/order";
    bool kept = client.connect() && client.subscribe(topic, 0) >= 0;
    for (int i = 0; kept && i < ROUNDS; ++i) {
        kept = client.subscribeAgain(topic) && client.exchange(topic, "x", 0);
    }
    return kept;
}

/// The largest payload that comes back, of those with 1024, 2048, 4096 ... bytes.
std::size_t largestPayload(Context& context, std::string const& base) {
    constexpr std::size_t SMALLEST = 1024;
    PlainClient client(context);
    auto const topic = base + "/size";
    bool works = client.connect() && client.subscribe(topic, 0) >= 0;
    std::size_t largest = 0;
    for (auto size = SMALLEST; works && size <= context.settings.maxPayload; size *= 2) {
        works = client.exchange(topic, std::string(size, 'x'), 0);
        largest = works ? size : largest;
    }
    return largest;
}

/// How long an exchange takes in which the broker sends two packets: some 40 ms if it waits with
/// the second one for the acknowledgement of the first. Negative: not measured.
double exchangeMs(Context& context, std::string const& base, int qos) {
    constexpr std::size_t ROUNDS = 30;   // at first the kernel acknowledges at once
    constexpr std::size_t MEASURED = 11; // the last ones
    PlainClient client(context);
    auto const topic = base + "/delay";
    std::vector<double> times;
    bool works = client.connect() && client.subscribe(topic, 0) >= 0;
    while (works && times.size() < ROUNDS) {
        auto const start = Clock::now();
        works = client.exchange(topic, "x", qos);
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    if (!works) {
        return -1;
    }
    std::sort(times.end() - MEASURED, times.end());
    return times[ROUNDS - 1 - MEASURED / 2];
}

// The features of the library.

Uuid const SERVER(1);
Uuid const CLIENT(2);

/// Answers all requests.
class Agreeing final : public mqtt::RequestReplyServer::Listener {
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*client*/, Uuid const& /*server*/,
              mqtt::RequestReplyData const& /*data*/,
              mqtt::RequestReply::ErrorCode& /*error*/) override {
        return mqtt::NO_DATA;
    }
};

constexpr auto SUCCESS = mqtt::MqttClient::Error::SUCCESS;

bool valuesWork(Context& context, std::string const& base) {
    Connection writer(context);
    mqtt::MqttData<conv::ServiceStatus> written(writer.client, base);
    bool const published = written.publishWait({}) == SUCCESS;
    Connection reader(context);
    mqtt::MqttData<conv::ServiceStatus> read(reader.client, base);
    return published
           && read.waitForNext(read.value, std::chrono::seconds(context.settings.timeout))
                  == SUCCESS;
}

bool discoveryWorks(Context& context, std::string const& base) {
    Connection connection(context);
    mqtt::MqttDataCollection<mqtt::Link> links(connection.client, base);
    mqtt::MqttData<conv::Identification> entity(connection.client, base + "/entity");
    mqtt::ServiceDiscovererMqtt discoverer(connection.client, base);
    return links.publishWait({{base + "/entity"}}) == SUCCESS && entity.publishWait({}) == SUCCESS
           && discoverer.discoverSync(context.settings.timeout, true);
}

bool requestsWork(Context& context, std::string const& base) {
    constexpr int REQUESTS = 10;
    Connection connection(context);
    Agreeing listener;
    mqtt::RequestReplyServer server(connection.client, base, Topic(), "try");
    mqtt::RequestReplyClient client(connection.client, base, Topic(), "try");
    server.subscribe(&listener, SERVER, mqtt::NO_DATA);
    bool answered = true;
    for (int i = 0; answered && i < REQUESTS; ++i) {
        answered = client.requestWait(CLIENT, SERVER, mqtt::NO_DATA, mqtt::NO_DATA,
                                      context.settings.timeout)
                   == mqtt::RequestReply::ErrorCode::SUCCESS;
    }
    return answered;
}

bool timeWorks(Context& context, std::string const& base) {
    Connection connection(context);
    mqtt::SynchronizedTimeBaseMqttAdaptor const server(connection.client, base, SERVER);
    mqtt::SynchronizedTimeBaseMqttProxy client(connection.client, base, CLIENT, nullptr);
    return client.synchronize(SERVER, context.settings.timeout);
}

bool bindingWorks(Context& context, std::string const& base) {
    using zym::common::Binder;
    Connection connection(context);
    Agreeing listener;
    mqtt::RequestReplyServer bind(connection.client, base, Topic(), "bind");
    mqtt::RequestReplyServer unbind(connection.client, base, Topic(), "unbind");
    bind.subscribe(&listener, SERVER, mqtt::NO_DATA);
    unbind.subscribe(&listener, SERVER, mqtt::NO_DATA);
    mqtt::SynchronizedTimeBaseMqttAdaptor const clock(connection.client, base, SERVER);
    mqtt::BinderMqttProxy client(connection.client, base, Topic(), CLIENT, Topic(), nullptr);
    auto const timeout = context.settings.timeout;
    return client.bindSync(SERVER, timeout) == Binder::Error::SUCCESS
           && client.unbindSync(timeout) == Binder::Error::SUCCESS;
}

bool willWorks(Context& context, std::string const& base) {
    auto writer = std::make_unique<PlainClient>(context);
    PlainClient reader(context);
    auto const topic = base + "/will";
    PlainClient::Message message;
    writer->setWill(topic, "x");
    bool const ready = reader.connect() && reader.subscribe(topic, 0) >= 0 && writer->connect();
    writer.reset(); // without a DISCONNECT packet
    return ready && reader.receive(topic, message);
}

/// Erases what is retained below `base`, also after an interruption.
void erase(Settings const& settings, std::string const& base) {
    mqtt::TopicCleaner cleaner(nullptr, randomIdentifier(), settings.address(),
                               settings.portNumber(), settings.connectionOptions());
    cleaner.clean(base + "/#", std::chrono::seconds(1));
    cleaner.waitAllTasks(std::chrono::seconds(settings.timeout));
    cleaner.terminate();
}

bool cleaningWorks(Context& context, std::string const& base) {
    constexpr auto LONG_ENOUGH = std::chrono::milliseconds(500);
    {
        Connection connection(context);
        mqtt::MqttData<conv::ServiceStatus> status(connection.client, base);
        status.publishWait({});
    }
    erase(context.settings, base);
    PlainClient client(context);
    return client.connect() && client.subscribe(base + "/#", 0) >= 0
           && !client.wait(Clock::now() + LONG_ENOUGH, [&] { return !client.messages.empty(); });
}

/// One thing that a broker does or does not, or one feature of the library on it.
struct Probe {
    char const* object; ///< the member of the result, with a member for each of its probes; or null
    char const* member;
    char const* text; ///< what it is, for people
    bool needsQos2;
    bool needsRetained;
    /// With connections of its own, on topics below `base`, within some time-outs. Throws or
    /// returns false if it does not work.
    bool (*works)(Context& context, std::string const& base);
};

constexpr Probe PROBES[] = {
    {"qos", "0", "Messages of QoS 0", false, false, qosWorks<0>},
    {"qos", "1", "Messages of QoS 1", false, false, qosWorks<1>},
    {"qos", "2", "Messages of QoS 2", false, false, qosWorks<2>},
    {nullptr, "retained", "Retained values", false, false, retainedValuesWork},
    {"wildcards", "plus", "The wildcard +", false, false, plusWorks},
    {"wildcards", "hash", "The wildcard #", false, false, hashWorks},
    {nullptr, "unsubscribeOrder", "A SUBSCRIBE after an UNSUBSCRIBE of the same topic", false,
     false, orderOfUnsubscribeWorks},
    {"features", "values", "Typed values, which a later reader finds", true, true, valuesWork},
    {"features", "discovery", "Discovery of entities", true, true, discoveryWorks},
    {"features", "requests", "Requests and replies", true, false, requestsWork},
    {"features", "time", "A server's time", true, false, timeWorks},
    {"features", "binding", "Binding to a server", true, false, bindingWorks},
    {"features", "will", "The will: others learn that a device has gone", false, false, willWorks},
    {"features", "cleaning", "Erasing what is retained", true, true, cleaningWorks},
};

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

/// One way to connect, and what came of it.
struct Attempt {
    bool connected;
    std::string sentence;
};

Attempt tryToConnect(Context& context) {
    auto const& settings = context.settings;
    auto const who = settings.user.empty() ? "without a user name" : "as " + settings.user;
    auto const how = std::string(settings.usesTls() ? "with TLS" : "without TLS") + ", " + who;
    try {
        Connection const connection(context);
        return {true, "Connected to " + settings.broker() + ", " + how + "."};
    } catch (CommandFailed const& failure) {
        return {false, "No connection " + how + ": " + failure.what()};
    }
}

/// The other way: with TLS in place of without, or the reverse, and then without secrets.
void switchTls(Settings& settings) {
    Settings other;
    other.host = settings.host;
    other.timeout = settings.timeout;
    other.json = settings.json;
    other.topic = settings.topic;
    other.maxPayload = settings.maxPayload;
    if (!settings.usesTls()) {
        other = settings;
        other.tls = true;
    }
    other.port = static_cast<unsigned>(settings.portNumber());
    settings = other;
}

/// Tries both ways; leaves the settings of the one that works, first the one asked for.
bool connect(Context& context, Findings& findings) {
    auto const asked = context.settings;
    auto const first = tryToConnect(context);
    findings.say(first.connected, first.sentence);
    JsonLine attempts;
    attempts.text(asked.usesTls() ? "tls" : "plain", first.sentence);
    bool connected = first.connected;
    if (asked.unixSocket.empty()) {
        switchTls(context.settings);
        auto const second = tryToConnect(context);
        findings.note("     " + second.sentence);
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
    findings.object.number("maxPayload", static_cast<double>(largest))
        .raw("ackDelayMs", ms < 0 ? "null" : fixed(ms, 2));
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

void examine(Context& context, Findings& findings) {
    std::map<std::string, JsonLine> objects;
    std::map<std::string, bool> works;
    for (auto const& probe : PROBES) {
        if (context.interruption.requested()) {
            break;
        }
        auto const* const missing = probe.needsQos2 && !works["2"] ? "needs QoS 2"
                                    : probe.needsRetained && !works["retained"]
                                        ? "needs retained values"
                                        : nullptr;
        works[probe.member] = tryProbe(context, findings, probe, missing);
        (probe.object == nullptr ? findings.object : objects[probe.object])
            .boolean(probe.member, works[probe.member]);
    }
    if (!context.interruption.requested()) {
        measure(context, findings, works["1"]);
    }
    for (auto& object : objects) {
        findings.object.raw(object.first.c_str(), object.second.finish());
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
    if (connected && context.interruption.requested()) {
        erase(context.settings, base);
    }
    context.console.reportJson(findings.object);
    return !connected ? ExitCode::NO_CONNECTION
                      : context.interruptedOr(findings.allGood ? ExitCode::DONE : ExitCode::FAILED);
}
