#pragma once

// What the device and the panel have agreed on: a small water works. Three entities belong to it,
// it binds one panel at a time, tells its time, and its tank hands out water.

#include <mqtt/request_reply.hpp>
#include <mqtt/topic.hpp>
#include <zym/common/binder.hpp>
#include <zym/common/lwjson.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>
#include <string>

using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;

/// Who takes part. An identifier names one party at the broker, so everybody has their own.
inline Uuid const PLANT_ID(3);
inline Uuid const PANEL_ID(4);
inline Uuid const TANK_ID(31);
inline Uuid const PUMP_ID(32);
inline Uuid const VALVE_ID(33);

/// Everything about the plant is published below this topic, and the links to its entities on it.
inline mqtt::Topic const PLANT = "demo/plant";
/// Where the panel is found; the plant is told so with a binding.
inline mqtt::Topic const PANEL = "demo/panel";

/// An entity has a level of its own below the plant. Requests to it travel below that level too.
inline mqtt::Topic topicOf(Uuid const& entity) {
    return PLANT + entity;
}

/// Binding: "bind" and "unbind", answered by the plant. A refusal is 16 plus the binder's error.
constexpr ErrorCode refusal(zym::common::Binder::Error error) {
    return ErrorCode(16 + static_cast<std::uint8_t>(error));
}

/// The service of the tank. Its own codes begin at 16; those below say what became of the request
/// itself.
constexpr char DRAW[] = "draw";
constexpr ErrorCode NOT_ENOUGH{17};
constexpr ErrorCode NOT_BOUND{18};

/// The two numbers of a service status are the service's own.
constexpr std::uint8_t NOT_OPERATING = 0;
constexpr std::uint8_t OPERATING = 1;
constexpr std::uint8_t HEALTHY = 1;
constexpr std::uint8_t RUNNING_LOW = 2;

/// An amount of water, as request and as reply: `"litres": 60` beside the members that every
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
    /// What this throws, for a text that has no such number, drops the request unanswered.
    void deserialize(zym::common::lwjson::Deserializer& in) override {
        using zym::common::lwjson::Deserializer;
        Deserializer::extractValue(in.getMember("litres"), litres_, "");
    }

private:
    unsigned int litres_ = 0;
};
