#pragma once

/// Marks what `libzym-mqtt.so` offers; everything else in it stays hidden.
#define ZYM_MQTT_EXPORT __attribute__((visibility("default")))
/// Marks what an exported class keeps to itself.
#define ZYM_MQTT_LOCAL __attribute__((visibility("hidden")))
