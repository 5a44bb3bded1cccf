#include "probes.hpp"

#include "plain_client.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <algorithm>
#include <memory>

using zym::common::Uuid;

namespace {

template <int QOS>
bool qosWorks(Context& context, std::string const& base) {
    PlainClient client(context);
    auto const topic = base + "/qos" + std::to_string(QOS);
    PlainClient::Message message;
    return client.subscribe(topic, QOS) == QOS && client.publish(topic, "x", QOS, false)
           && client.receive(topic, message) && message.qos == QOS;
}

bool retainedValuesWork(Context& context, std::string const& base) {
    PlainClient writer(context);
    PlainClient reader(context);
    auto const topic = base + "/retained";
    PlainClient::Message message;
    bool const written = writer.publish(topic, "x", 1, true);
    reader.subscribe(topic);
    bool const kept = written && reader.receive(topic, message) && message.retained;
    writer.publish(topic, "", 1, true);
    return kept;
}

bool patternWorks(Context& context, std::string const& pattern, std::string const& topic) {
    PlainClient client(context);
    client.subscribe(pattern);
    return client.exchange(topic, "x", 0);
}

bool plusWorks(Context& context, std::string const& base) {
    return patternWorks(context, base + "/wildcard/+", base + "/wildcard/plus");
}

bool hashWorks(Context& context, std::string const& base) {
    return patternWorks(context, base + "/wildcard/#", base + "/wildcard/hash/level");
}

/// It answers an UNSUBSCRIBE before a SUBSCRIBE that follows it, and the subscription holds.
bool orderOfUnsubscribeWorks(Context& context, std::string const& base) {
    constexpr int ROUNDS = 10;
    PlainClient client(context);
    auto const topic = base + "/order";
    client.subscribe(topic);
    bool kept = true;
    for (int i = 0; kept && i < ROUNDS; ++i) {
        kept = client.subscribeAgain(topic) && client.exchange(topic, "x", 0);
    }
    return kept;
}

bool willWorks(Context& context, std::string const& base) {
    auto const topic = base + "/will";
    auto writer = std::make_unique<PlainClient>(context, topic);
    PlainClient reader(context);
    reader.subscribe(topic);
    writer.reset(); // without a DISCONNECT packet
    PlainClient::Message message;
    return reader.receive(topic, message);
}

mqtt::ServerId const SERVER(Uuid(1));
mqtt::ClientId const CLIENT(Uuid(2));

using mqtt::Nothing;
using Service = mqtt::Service<Nothing, Nothing>;

/// Answers all requests with success.
mqtt::Server<Nothing, Nothing> serve(Connection& connection, Service const& service) {
    return {connection.client, service, SERVER, [](Nothing const&) { return Nothing(); }};
}

constexpr auto SUCCESS = mqtt::MqttClient::Error::SUCCESS;

bool valuesWork(Context& context, std::string const& base) {
    Connection writer(context);
    Connection reader(context);
    mqtt::MqttData<conv::ServiceStatus> written(writer.client, base);
    mqtt::MqttData<conv::ServiceStatus> read(reader.client, base);
    conv::ServiceStatus status;
    return written.publishWait({}) == SUCCESS
           && read.waitForNext(status, std::chrono::seconds(context.settings.timeout)) == SUCCESS;
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
    Service const service{base, "try"};
    auto const server = serve(connection, service);
    mqtt::Caller caller(connection.client, service, CLIENT, SERVER);
    bool answered = true;
    for (int i = 0; answered && i < REQUESTS; ++i) {
        answered = static_cast<bool>(
            caller.callWait(Nothing(), std::chrono::seconds(context.settings.timeout)));
    }
    return answered;
}

bool timeWorks(Context& context, std::string const& base) {
    Connection connection(context);
    mqtt::SynchronizedTimeBaseMqttAdaptor const server(connection.client, base, SERVER.uuid);
    mqtt::SynchronizedTimeBaseMqttProxy client(connection.client, base, CLIENT.uuid, nullptr);
    return client.synchronize(SERVER.uuid, context.settings.timeout);
}

bool bindingWorks(Context& context, std::string const& base) {
    using zym::common::Binder;
    Connection connection(context);
    auto const bind = serve(connection, {base, "bind"});
    auto const unbind = serve(connection, {base, "unbind"});
    mqtt::SynchronizedTimeBaseMqttAdaptor const clock(connection.client, base, SERVER.uuid);
    mqtt::BinderMqttProxy client(connection.client, base, {}, CLIENT.uuid, {}, nullptr);
    auto const timeout = context.settings.timeout;
    return client.bindSync(SERVER.uuid, timeout) == Binder::Error::SUCCESS
           && client.unbindSync(timeout) == Binder::Error::SUCCESS;
}

bool cleaningWorks(Context& context, std::string const& base) {
    constexpr auto LONG_ENOUGH = std::chrono::milliseconds(500);
    {
        Connection connection(context);
        mqtt::MqttData<conv::ServiceStatus>(connection.client, base).publishWait({});
    }
    erase(context.settings, base);
    PlainClient client(context);
    client.subscribe(base + "/#");
    return !client.wait(Clock::now() + LONG_ENOUGH, [&] { return !client.messages.empty(); });
}

} // namespace

std::vector<Probe> const& probes() {
    static std::vector<Probe> const all = {
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
        {"features", "will", "The will: others learn that a device has gone", false, false,
         willWorks},
        {"features", "cleaning", "Erasing what is retained", true, true, cleaningWorks},
    };
    return all;
}

std::size_t largestPayload(Context& context, std::string const& base) try {
    PlainClient client(context);
    auto const topic = base + "/size";
    client.subscribe(topic);
    constexpr std::size_t SMALLEST = 1024;
    std::size_t size = SMALLEST;
    while (size <= context.settings.maxPayload
           && client.exchange(topic, std::string(size, 'x'), 0)) {
        size *= 2;
    }
    return size == SMALLEST ? 0 : size / 2;
} catch (CommandFailed const&) {
    return 0;
}

double exchangeMs(Context& context, std::string const& base, int qos) try {
    constexpr std::size_t ROUNDS = 30;   // at first the kernel acknowledges at once
    constexpr std::size_t MEASURED = 11; // the last ones
    PlainClient client(context);
    auto const topic = base + "/delay";
    client.subscribe(topic);
    std::vector<double> times;
    while (times.size() < ROUNDS) {
        auto const start = Clock::now();
        if (!client.exchange(topic, "x", qos)) {
            return -1;
        }
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::sort(times.end() - MEASURED, times.end());
    return times[ROUNDS - 1 - MEASURED / 2];
} catch (CommandFailed const&) {
    return -1;
}

void erase(Settings const& settings, std::string const& base) {
    mqtt::TopicCleaner cleaner(nullptr, randomIdentifier(), settings.address(),
                               settings.portNumber(), settings.connectionOptions());
    cleaner.clean(base + "/#", std::chrono::seconds(1));
    cleaner.waitAllTasks(std::chrono::seconds(settings.timeout));
    cleaner.terminate();
}
