#pragma once

// What the device and the panel share: the description of a small water works, the plant. It has
// three entities, binds one panel at a time, reports its time, and its tank hands out water.

#include <mqtt/request_reply.hpp>
#include <mqtt/topic.hpp>
#include <zym/common/binder.hpp>
#include <zym/common/lwjson.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>
#include <string>

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

/// The service of the tank. Its own error codes begin at 16; the smaller ones belong to the
/// library.
constexpr char DRAW[] = "draw";
constexpr ErrorCode NOT_ENOUGH{17};
constexpr ErrorCode NOT_BOUND{18};

/// Each service defines the meaning of the two numbers in its status.
constexpr std::uint8_t NOT_OPERATING = 0;
constexpr std::uint8_t OPERATING = 1;
constexpr std::uint8_t HEALTHY = 1;
constexpr std::uint8_t RUNNING_LOW = 2;

/// An amount of water in a request or reply: `"litres": 60` in addition to the members that every
/// request or reply has.
class Litres final : public mqtt::RequestReplyData {
public:
    Litres() = default;
    explicit Litres(unsigned int litres) : litres_(litres) {}

    unsigned int count() const { return litres_; }

    void serialize(zym::common::lwjson::Serializer& out) const override {
        out.appendKey("litres");
        out.appendValue(std::to_string(litres_).c_str());
    }
    /// Throws when the number is missing; the request is then dropped without an answer.
    void deserialize(zym::common::lwjson::Deserializer& in) override {
        using zym::common::lwjson::Deserializer;
        Deserializer::extractValue(in.getMember("litres"), litres_, "");
    }

private:
    unsigned int litres_ = 0;
};
