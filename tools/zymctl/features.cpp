#include "features.hpp"

#include "probes.hpp"
#include "raw_payload.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <memory>

using mqtt::Topic;
using zym::common::Uuid;

namespace {

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

/// A value that is published is there for a later reader.
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
    for (int i = 0; i < REQUESTS; ++i) {
        if (client.requestWait(CLIENT, SERVER, mqtt::NO_DATA, mqtt::NO_DATA,
                               context.settings.timeout)
            != mqtt::RequestReply::ErrorCode::SUCCESS) {
            return false;
        }
    }
    return true;
}

bool timeWorks(Context& context, std::string const& base) {
    Connection connection(context);
    mqtt::SynchronizedTimeBaseMqttAdaptor const server(connection.client, base, SERVER);
    mqtt::SynchronizedTimeBaseMqttProxy client(connection.client, base, CLIENT, nullptr);
    return client.synchronize(SERVER, context.settings.timeout);
}

bool bindingWorks(Context& context, std::string const& base) {
    Connection connection(context);
    Agreeing listener;
    mqtt::RequestReplyServer bind(connection.client, base, Topic(), "bind");
    mqtt::RequestReplyServer unbind(connection.client, base, Topic(), "unbind");
    bind.subscribe(&listener, SERVER, mqtt::NO_DATA);
    unbind.subscribe(&listener, SERVER, mqtt::NO_DATA);
    mqtt::SynchronizedTimeBaseMqttAdaptor const clock(connection.client, base, SERVER);
    mqtt::BinderMqttProxy client(connection.client, base, Topic(), CLIENT, Topic(), nullptr);
    auto const timeout = context.settings.timeout;
    using zym::common::Binder;
    return client.bindSync(SERVER, timeout) == Binder::Error::SUCCESS
           && client.unbindSync(timeout) == Binder::Error::SUCCESS;
}

/// Erases what the other features have left.
bool cleaningWorks(Context& context, std::string const& base) {
    {
        Connection connection(context);
        mqtt::MqttData<conv::ServiceStatus> status(connection.client, base);
        publish(status);
    }
    erase(context.settings, base);
    return hasNothingRetained(context, base);
}

} // namespace

Feature const FEATURES[] = {
    {"values", "Typed values, which a later reader finds", true, true, valuesWork},
    {"discovery", "Discovery of entities", true, true, discoveryWorks},
    {"requests", "Requests and replies", true, false, requestsWork},
    {"time", "A server's time", true, false, timeWorks},
    {"binding", "Binding to a server", true, false, bindingWorks},
    {"will", "The will: others learn that a device has gone", false, false, publishesWill},
    {"cleaning", "Erasing what is retained", true, true, cleaningWorks},
};

void erase(Settings const& settings, std::string const& base) {
    mqtt::TopicCleaner cleaner(nullptr, randomIdentifier(), settings.address(),
                               settings.portNumber(), settings.connectionOptions());
    cleaner.clean(base + "/#", std::chrono::seconds(1));
    cleaner.waitAllTasks(std::chrono::seconds(settings.timeout));
    cleaner.terminate();
}
