#pragma once

/// Exports a name from `libzym-mqtt.so`; all other names in it are hidden.
#define ZYM_MQTT_EXPORT __attribute__((visibility("default")))
/// Hides a member of an exported class.
#define ZYM_MQTT_LOCAL __attribute__((visibility("hidden")))
