#pragma once

// What the device and the panel share: the description of a small water works, the plant. It has
// three entities, binds one panel at a time, reports its time, and its tank hands out water.

#include <conv/service_status.hpp>
#include <mqtt/fields.hpp>
#include <mqtt/service.hpp>
#include <mqtt/topic.hpp>
#include <zym/common/binder.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>

using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;

/// The participants. The broker tells clients apart by their identifiers, so each has its own.
inline Uuid const PLANT_ID(3);
inline Uuid const PANEL_ID(4);
inline Uuid const TANK_ID(31);
inline Uuid const PUMP_ID(32);
inline Uuid const VALVE_ID(33);

/// The links to the plant's entities are published on this topic, everything else below it.
inline mqtt::Topic const PLANT = "demo/plant";
/// The topic of the panel. A binding sends it to the plant.
inline mqtt::Topic const PANEL = "demo/panel";

/// Each entity has its own level below the plant. Requests to it use topics below that level.
inline mqtt::Topic topicOf(Uuid const& entity) {
    return PLANT + entity;
}

/// The plant refuses "bind" and "unbind" with 16 plus the binder's error.
constexpr ErrorCode refusalCode(zym::common::Binder::Error error) {
    return ErrorCode(16 + static_cast<std::uint8_t>(error));
}

/// Each service defines the meaning of the two numbers in its status.
constexpr conv::ServiceStatus CLOSED{0, 1};
constexpr conv::ServiceStatus WORKING{1, 1};
constexpr conv::ServiceStatus RUNNING_LOW{1, 2};

/// An amount of water: in a request or a reply, and as the level of the tank. On the level "level"
/// below the topic of the tank, at QoS 2, retained.
struct Litres {
    unsigned int litres = 0;
};
ZYM_MQTT_VALUE(Litres, "level", 2, true, litres)

/// The service of the tank. Its own errors begin at 16; the smaller ones belong to the library.
inline mqtt::Service<Litres, Litres> const DRAW{PLANT, "draw"};
enum class DrawError : std::uint8_t { NOT_ENOUGH = 17, NOT_BOUND = 18 };
