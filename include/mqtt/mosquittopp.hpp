#pragma once

// The broker library's class, which version 2.1 has in another header than 2.0.

#include <mosquitto.h>

// The layout of the class changes with the minor version, and mqtt::MqttClient derives from it.
#if LIBMOSQUITTO_MAJOR == 2 && LIBMOSQUITTO_MINOR == 0
#include <mosquittopp.h>
#elif LIBMOSQUITTO_MAJOR == 2 && LIBMOSQUITTO_MINOR == 1
#include <mosquitto/libmosquittopp.h>
#else
#error "libzym-mqtt needs libmosquittopp 2.0.x or 2.1.x"
#endif
