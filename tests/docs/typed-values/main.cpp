#include "reading.hpp"

#include <iostream>

int main() {
    mqtt::MqttClient client(zym::common::Uuid(1), false, "", "localhost", 1883, true);
#include "typed-values/4.inc"
#include "typed-values/5.inc"
#include "typed-values/6.inc"
#include "typed-values/7.inc"
#include "typed-values/8.inc"
}
