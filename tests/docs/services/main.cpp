#include <mqtt/binder_proxy.hpp>
#include <mqtt/client.hpp>
#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/test_checks.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

namespace {

#include "services/2.inc"
#include "services/5.inc"

zym::common::Uuid const plantId(3);
zym::common::Uuid const panelId(4);

void tellTime(mqtt::MqttClient& client) {
#include "services/1.inc"
    Uptime const uptime(client, "plant/uptime", plantId);
#include "services/3.inc"
#include "services/4.inc"
}

void bindAndUnbind(mqtt::MqttClient& client) {
    mqtt::SynchronizedTimeBaseMqttAdaptor const clock(client, "plant", plantId);
#include "services/6.inc"
#include "services/7.inc"
}

void publishAndDiscover(mqtt::MqttClient& client) {
#include "services/8.inc"
#include "services/9.inc"
}

void clean() {
#include "services/10.inc"
}

void check(mqtt::MqttClient& client) {
#include "services/11.inc"
#include "services/12.inc"
    std::cout << there << '\n';
}

} // namespace

int main() {
    mqtt::MqttClient client(panelId, false, "", "localhost", 1883, true);
    tellTime(client);
    bindAndUnbind(client);
    publishAndDiscover(client);
    check(client);
    clean();
}
