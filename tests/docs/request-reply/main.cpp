#include "request-reply/1.inc"
#include "request-reply/5.inc"

#include <iostream>

int main() {
    zym::common::Uuid const tankId(1);
    zym::common::Uuid const panelId(2);
    mqtt::MqttClient client(panelId, false, "", "localhost", 1883, true);
#include "request-reply/2.inc"
#include "request-reply/3.inc"
#include "request-reply/4.inc"
#include "request-reply/6.inc"
}
