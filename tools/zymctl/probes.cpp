#include "doctor.hpp"
#include "plain_client.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <algorithm>
#include <memory>
#include <vector>

using mqtt::Topic;
using zym::common::Uuid;

// First what the broker does, tried with the broker library alone.

namespace {

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

bool publish(mqtt::MqttDataBase& endpoint) {
    mqtt::MqttDataBase::Lock lock(endpoint.mutex());
    return endpoint.send(true, lock) == mqtt::MqttClient::Error::SUCCESS;
}

bool valuesWork(Context& context, std::string const& base) {
    Connection writer(context);
    mqtt::MqttData<conv::ServiceStatus> status(writer.client, base);
    if (!publish(status)) {
        return false;
    }
    Connection reader(context);
    Awaited<bool> arrived(context.interruption);
    TopicReader const read(reader.client,
                           Topic(base) + mqtt::MqttData<conv::ServiceStatus>::TOPIC_SUFFIX,
                           [&](Topic const&, std::string const&) { arrived.give(true); });
    return arrived.wait(context.settings.deadline()).has_value();
}

bool discoveryWorks(Context& context, std::string const& base) {
    Connection connection(context);
    mqtt::MqttDataCollection<mqtt::Link> links(connection.client, base);
    mqtt::MqttData<conv::Identification> entity(connection.client, base + "/entity");
    links.value = {{base + "/entity"}};
    mqtt::ServiceDiscovererMqtt discoverer(connection.client, base);
    return publish(links) && publish(entity)
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

bool cleaningWorks(Context& context, std::string const& base) {
    constexpr auto LONG_ENOUGH = std::chrono::milliseconds(500);
    {
        Connection connection(context);
        mqtt::MqttData<conv::ServiceStatus> status(connection.client, base);
        publish(status);
    }
    erase(context.settings, base);
    PlainClient client(context);
    return client.connect() && client.subscribe(base + "/#", 0) >= 0
           && !client.wait(Clock::now() + LONG_ENOUGH, [&] { return !client.messages.empty(); });
}

} // namespace

Probe const PROBES[14] = {
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

void erase(Settings const& settings, std::string const& base) {
    mqtt::TopicCleaner cleaner(nullptr, randomIdentifier(), settings.address(),
                               settings.portNumber(), settings.connectionOptions());
    cleaner.clean(base + "/#", std::chrono::seconds(1));
    cleaner.waitAllTasks(std::chrono::seconds(settings.timeout));
    cleaner.terminate();
}
